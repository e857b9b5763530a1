#include "FrameStream.h"

#include <VelChiDesktopHelper.h>
#include <VelImgSubHelper.h>
#include <ui/GraphicBuffer.h>

#include <stdexcept>
#include <utility>

#include "EventWriter.h"
#include "FrameBuffer.h"
#include "FrameCounter.h"
#include "Program.h"
#include "Timeline.h"

namespace vel::sim {

using android::GraphicBuffer;
using android::sp;

namespace {

constexpr std::chrono::seconds kApplicationLimit{30};
constexpr std::chrono::seconds kReplacementLimit{10};
constexpr std::chrono::seconds kSendAgainAfter{2};
constexpr std::chrono::milliseconds kRetryPause{5};

}  // namespace

struct FrameStream::Taken {
    Outcome outcome = Outcome::NONE;
    std::shared_ptr<AImage> image;
    std::unique_ptr<MappedBuffer> mapped;
    FrameHeader header;
    uint64_t memory = 0;
};

FrameCounts& FrameCounts::operator+=(const FrameCounts& other) {
    for (const auto field :
         {&FrameCounts::sent, &FrameCounts::replaced, &FrameCounts::late, &FrameCounts::repeated,
          &FrameCounts::dropped, &FrameCounts::copies, &FrameCounts::wrong}) {
        this->*field += other.*field;
    }
    return *this;
}

FrameStream::FrameStream(VelChiDesktopHelper* helper, Setup setup, const StopSignal& stop)
    : mHelper(helper), mSetup(std::move(setup)), mStop(stop), mPicture(mSetup.size), mEvents(mSetup.stream) {}

FrameCounts FrameStream::counts() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mCounts;
}

void FrameStream::count(uint64_t FrameCounts::*field, uint64_t add) {
    std::lock_guard<std::mutex> lock(mLock);
    mCounts.*field += add;
}

LatencyStats FrameStream::takeRecentLatency() {
    std::lock_guard<std::mutex> lock(mLock);
    return std::exchange(mRecentLatency, {});
}

void FrameStream::run() {
    mStart = StopSignal::Clock::now();
    if (mSetup.isLossless) {
        runLossless();
    } else {
        runLive();
    }
}

// Null while there is none for frames.
std::shared_ptr<VelImgSubHelper> FrameStream::node() const {
    if (mSetup.isNodeGone != nullptr && *mSetup.isNodeGone) return nullptr;
    return std::atomic_load(&mHelper->mImgSubHelper);
}

// The time at which the frame is to be captured.
StopSignal::Clock::time_point FrameStream::due() const {
    if (mSetup.fps == 0) return mStart;
    return mStart + std::chrono::nanoseconds(static_cast<int64_t>(1e9 * mCounter / mSetup.fps));
}

bool FrameStream::draw() {
    mCaptureStartNs = steadyNowNs();
    return mSetup.draw(mCounter, mPicture.view());
}

void FrameStream::runLive() {
    if (!sendFirst()) return;
    while (mSetup.count == 0 || mCounter < mSetup.count) {
        if (!mStop.waitUntil(due())) return;
        skipMissed();
        const auto helper = node();
        if (!draw()) return;
        if (helper != nullptr && send(*helper)) {
            exchange(*helper);
        } else {
            count(&FrameCounts::dropped);
            noteChange(Outcome::NONE);
            if (mSetup.unsent) mSetup.unsent({mCounter, mSetup.stream}, mPicture.view());
        }
        ++mCounter;
    }
}

// The clock starts with the first frame that the application takes.
bool FrameStream::sendFirst() {
    const auto limit = StopSignal::Clock::now() + kApplicationLimit;
    if (!draw()) return false;
    for (;;) {
        const auto helper = node();
        mStart = StopSignal::Clock::now();
        if (helper != nullptr && send(*helper)) {
            exchange(*helper);
            ++mCounter;
            return true;
        }
        if (mStart > limit) throw std::runtime_error("no application took a frame");
        if (!mStop.waitFor(kRetryPause)) return false;
        mCaptureStartNs = steadyNowNs();
    }
}

// Frames whose whole time has passed while an earlier one was waited for.
void FrameStream::skipMissed() {
    const auto period = std::chrono::nanoseconds(1'000'000'000 / mSetup.fps);
    const auto last = mSetup.count == 0 ? UINT32_MAX : mSetup.count - 1;
    while (mCounter < last && due() + period < StopSignal::Clock::now()) {
        count(&FrameCounts::dropped);
        ++mCounter;
    }
}

bool FrameStream::send(VelImgSubHelper& helper) {
    const sp<GraphicBuffer> buffer = helper.imgSubGetOutputFrameToFill(mSetup.stream);
    if (buffer == nullptr) return false;
    if (buffer->getWidth() != frameRowBytes(mSetup.size))
        throw std::runtime_error("the application has configured frames of another size");
    mHeader = {mCounter, mSetup.stream, steadyNowNs(), memoryIdentity(*buffer), 0};
    {
        const MappedBuffer mapped(buffer, GraphicBuffer::USAGE_SW_WRITE_OFTEN);
        if (mapped.data() == nullptr) throw std::runtime_error("a buffer cannot be written");
        copyFrame(mPicture.view(), FrameView(mapped.data(), mSetup.size));
        writeFrameHeader(mapped.data(), mSetup.size, mHeader);
    }
    helper.imgSubQueueOutputFrame(mSetup.stream, mHeader.captureNs);
    count(&FrameCounts::sent);
    mEvents.sent(mHeader, mCaptureStartNs);
    return true;
}

void FrameStream::exchange(VelImgSubHelper& helper) {
    const int64_t startNs = steadyNowNs();
    Taken taken = take(helper);
    // Behind a replacement that came late there may be newer ones.
    while (taken.outcome == Outcome::LATE && !mStop.isSet()) {
        Taken next = take(helper);
        if (next.outcome == Outcome::REPEATED || next.outcome == Outcome::NONE) break;
        taken = std::move(next);
    }
    count(taken.outcome == Outcome::REPLACED   ? &FrameCounts::replaced
          : taken.outcome == Outcome::LATE     ? &FrameCounts::late
          : taken.outcome == Outcome::REPEATED ? &FrameCounts::repeated
                                               : &FrameCounts::dropped);
    mEvents.waited(mCounter, startNs, nameOf(taken.outcome));
    deliver(taken);
    noteChange(taken.outcome);
}

void FrameStream::runLossless() {
    while (mSetup.count == 0 || mCounter < mSetup.count) {
        if (!mStop.waitUntil(due()) || !draw()) return;
        if (!exchangeWithoutLoss()) return;
        ++mCounter;
    }
}

// False when the stream is to end.
bool FrameStream::exchangeWithoutLoss() {
    const auto limit = StopSignal::Clock::now() + (mCounter == 0 ? kApplicationLimit : kReplacementLimit);
    while (!mStop.isSet()) {
        const auto helper = node();
        if (helper != nullptr && send(*helper) && awaitReplacement(helper)) return true;
        if (StopSignal::Clock::now() > limit) {
            throw std::runtime_error("no replacement of frame " + std::to_string(mCounter) + " of stream " +
                                     std::to_string(mSetup.stream) + " came");
        }
        (void)mStop.waitFor(kRetryPause);
        mCaptureStartNs = steadyNowNs();
    }
    return false;
}

// False when the frame should be sent again: the application was replaced, or lost it.
bool FrameStream::awaitReplacement(const std::shared_ptr<VelImgSubHelper>& helper) {
    const int64_t startNs = steadyNowNs();
    const auto limit = StopSignal::Clock::now() + kSendAgainAfter;
    while (!mStop.isSet() && StopSignal::Clock::now() < limit && node() == helper) {
        const Taken taken = take(*helper);
        noteChange(taken.outcome);
        if (taken.outcome == Outcome::REPLACED) {
            count(&FrameCounts::replaced);
            mEvents.waited(mCounter, startNs, nameOf(taken.outcome));
            deliver(taken);
            return true;
        }
        if (taken.outcome == Outcome::NONE) (void)mStop.waitFor(kRetryPause);
    }
    mEvents.waited(mCounter, startNs, nameOf(Outcome::NONE));
    return false;
}

FrameStream::Taken FrameStream::take(VelImgSubHelper& helper) {
    Taken taken;
    const sp<GraphicBuffer> buffer = helper.imgSubAcquireFrame(mSetup.stream, taken.image);
    if (buffer == nullptr || buffer->getWidth() != frameRowBytes(mSetup.size)) return taken;
    taken.memory = memoryIdentity(*buffer);
    taken.mapped = std::make_unique<MappedBuffer>(buffer, GraphicBuffer::USAGE_SW_READ_OFTEN);
    if (taken.mapped->data() == nullptr) return taken;
    taken.header = readFrameHeader(taken.mapped->data(), mSetup.size);
    taken.outcome = judge(taken.header);
    if (taken.outcome == Outcome::REPLACED) noteLatency();
    if (taken.outcome != Outcome::REPEATED) mEvents.replaced(taken.header);
    if (taken.outcome != Outcome::REPEATED) examine(taken);
    mLastOutputNs = taken.header.captureNs;
    return taken;
}

void FrameStream::noteLatency() {
    const int64_t latencyNs = steadyNowNs() - mHeader.captureNs;
    mLatency.record(latencyNs);
    if (!events::areWanted()) return;
    std::lock_guard<std::mutex> lock(mLock);
    mRecentLatency.record(latencyNs);
}

const char* FrameStream::nameOf(Outcome outcome) {
    switch (outcome) {
        case Outcome::REPLACED:
            return "replaced";
        case Outcome::LATE:
            return "late";
        case Outcome::REPEATED:
            return "repeated";
        case Outcome::NONE:
            break;
    }
    return "dropped";
}

FrameStream::Outcome FrameStream::judge(const FrameHeader& header) const {
    if (header.counter == mHeader.counter) return Outcome::REPLACED;
    return header.captureNs == mLastOutputNs ? Outcome::REPEATED : Outcome::LATE;
}

// Is it the memory that the application wrote, and the picture that the header says?
void FrameStream::examine(const Taken& taken) {
    count(&FrameCounts::copies, taken.header.copiesMade + (taken.memory == taken.header.memory ? 0 : 1));
    bool isWrong = taken.header.stream != mSetup.stream;
    if (mSetup.hasCounters && counterStripHeight(mSetup.size) > 0) {
        const auto read = readFrameCounter(ConstFrameView(taken.mapped->data(), mSetup.size));
        isWrong = isWrong || !read || !(*read == FrameCounter{taken.header.counter, taken.header.stream});
    }
    if (isWrong) count(&FrameCounts::wrong);
}

void FrameStream::deliver(const Taken& taken) {
    if (taken.outcome == Outcome::NONE) {
        mSetup.output(mHeader, mPicture.view(), std::nullopt, std::nullopt);
        return;
    }
    mSetup.output(mHeader, mPicture.view(), taken.header, ConstFrameView(taken.mapped->data(), mSetup.size));
}

void FrameStream::noteChange(Outcome outcome) {
    const bool isReplacing = outcome == Outcome::REPLACED || outcome == Outcome::LATE;
    if (isReplacing == mIsReplacing) return;
    mIsReplacing = isReplacing;
    mEvents.changed(mCounter, isReplacing);
    printLine("stream %u: replacements %s frame %u", mSetup.stream, isReplacing ? "are back with" : "stop at",
              mCounter);
}

}  // namespace vel::sim
