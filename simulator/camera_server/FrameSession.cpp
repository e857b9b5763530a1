#include "FrameSession.h"

#include <VelChiDesktopHelper.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cinttypes>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "EventWriter.h"
#include "FrameEvents.h"
#include "PictureTap.h"
#include "PreviewFeed.h"
#include "Program.h"
#include "StartThread.h"
#include "Timeline.h"

namespace vel::sim {

namespace {

constexpr std::chrono::seconds kReportEvery{1};
constexpr std::chrono::milliseconds kNodePause{2};

bool isPowerOfTwo(uint32_t number) {
    return (number & (number - 1)) == 0;
}

// The moments that the contact sheet shows: soon after the start, then ever rarer.
bool isWorthShowing(uint32_t counter) {
    return counter == 0 || (counter >= 7 && isPowerOfTwo(counter + 1));
}

double percentileMs(const LatencyStats& latency, double percent) {
    return static_cast<double>(latency.percentileNs(percent)) / 1e6;
}

using Streams = std::vector<std::unique_ptr<FrameStream>>;

FrameCounts total(const Streams& streams) {
    FrameCounts sum;
    for (const auto& stream : streams)
        sum += stream->counts();
    return sum;
}

void printProgress(const Streams& streams, bool isWaitingForInput) {
    const FrameCounts sum = total(streams);
    printLine("frames so far: %" PRIu64 " sent, %" PRIu64 " replaced in time, %" PRIu64 " repeated, %" PRIu64
              " late, %" PRIu64 " dropped%s",
              sum.sent, sum.replaced, sum.repeated, sum.late, sum.dropped,
              isWaitingForInput ? ", waiting for input" : "");
}

void tellFigures(const Streams& streams) {
    if (!events::areWanted()) return;
    for (size_t index = 0; index < streams.size(); ++index)
        tellSecond(static_cast<uint32_t>(index), streams[index]->counts(),
                   streams[index]->takeRecentLatency());
}

void printTable(const Streams& streams, uint64_t previewFrames) {
    printLine(
        "stream     sent  in time  repeated   late  dropped  copies   p50 ms   p90 ms   p99 ms   max ms");
    for (size_t index = 0; index < streams.size(); ++index) {
        const FrameCounts counts = streams[index]->counts();
        const LatencyStats& latency = streams[index]->latency();
        printLine("stream %zu %6" PRIu64 " %8" PRIu64 " %9" PRIu64 " %6" PRIu64 " %8" PRIu64 " %7" PRIu64
                  " %8.2f %8.2f %8.2f %8.2f",
                  index, counts.sent, counts.replaced, counts.repeated, counts.late, counts.dropped,
                  counts.copies, percentileMs(latency, 50), percentileMs(latency, 90),
                  percentileMs(latency, 99), static_cast<double>(latency.maxNs()) / 1e6);
    }
    printLine("preview  %6" PRIu64, previewFrames);
}

}  // namespace

FrameSession::FrameSession(VelChiDesktopHelper* helper, const FrameSetup& setup, int streamFd,
                           PictureTap* pictures)
    : mHelper(helper),
      mSetup(setup),
      mStreamFd(streamFd),
      mPictures(pictures),
      mCancel(eventfd(0, EFD_CLOEXEC)) {
    if (mCancel < 0) throw std::system_error(errno, std::generic_category(), "no descriptor for the frames");
}

void FrameSession::run() {
    try {
        play();
    } catch (const std::exception& error) {
        fail(error.what());
    }
    const FrameSize size = mSource != nullptr ? mSource->size() : mSetup.size;
    mOutput.reset();
    mSource.reset();
    std::lock_guard<std::mutex> lock(mLock);
    const std::string outcome = mProblem.empty() ? "well" : mProblem;
    tellFramesEnd(outcome, size, mStreams, mPreviewFrames);
    mIsOver = true;  // first: who reads the line may start the next frames
    printLine("frames ended: %s", outcome.c_str());
}

void FrameSession::stop(bool isAborted) {
    mStop.set();
    {
        std::lock_guard<std::mutex> lock(mLock);
        const bool isFailure = isAborted || !mSetup.input.empty();
        if (isFailure && mProblem.empty()) mProblem = isAborted ? "aborted" : "ended before its input";
    }
    eventfd_write(mCancel, 1);
}

// The library keeps the node as long as a frame uses it.
void FrameSession::endNode() {
    mIsNodeGone = true;
    do {
        mHelper->ImgSubNodeDisconnect();
    } while (std::atomic_load(&mHelper->mImgSubHelper) != nullptr && mStreamsEnd.waitFor(kNodePause));
    printLine("frames: the substitution node has ended");
}

void FrameSession::play() {
    openFiles();
    makeStreams();
    printLine("frames of %dx%d ready, %d streams", mSource->size().width, mSource->size().height,
              mSetup.streams);
    tellFramesBegin(mSource->size(), mStreams.size(), mSource->fps());
    mHelper->sendImgSubHalReadyToApp();

    PreviewFeed preview(mHelper, mStreamsEnd);
    streamToTheEnd();
    preview.join();
    mHelper->disconnectProducer();
    mHelper->ImgSubNodeDisconnect();
    mPreviewFrames = preview.frames();
    printTable(mStreams, mPreviewFrames);
    judge();
    finishFiles();
}

void FrameSession::openFiles() {
    mSource = std::make_unique<PictureSource>(mSetup, mStreamFd, mCancel);
    if (isSameFile(mSetup.input, mSetup.output))
        throw std::runtime_error("input and output are the same file");
    if (!mSetup.output.empty())
        mOutput = std::make_unique<OutputFile>(mSetup.output, mSource->size(), mSource->rate());
    mSource->readFirst();
}

void FrameSession::makeStreams() {
    for (uint32_t index = 0; index < static_cast<uint32_t>(mSetup.streams); ++index)
        mStreams.push_back(std::make_unique<FrameStream>(mHelper, streamSetup(index), mStop));
}

FrameStream::Setup FrameSession::streamSetup(uint32_t index) {
    FrameStream::Setup setup;
    setup.size = mSource->size();
    setup.stream = index;
    setup.count = static_cast<uint32_t>(mSetup.count);
    setup.fps = mSource->fps();
    setup.isLossless = mSetup.isLossless();
    setup.hasCounters = !mSource->isVideo();
    setup.isNodeGone = &mIsNodeGone;
    setup.draw = mSource->drawing(index);
    setup.output = [this](const auto&... frames) { output(frames...); };
    setup.unsent = [this](const FrameHeader& captured, const ConstFrameView& picture) {
        if (mPictures != nullptr) mPictures->offer(captured, picture, std::nullopt, std::nullopt);
    };
    return setup;
}

// Runs the streams, each on its thread, and reports until the last one has ended.
void FrameSession::streamToTheEnd() {
    mRunning = mStreams.size();
    std::vector<std::thread> threads;
    for (const auto& stream : mStreams) {
        try {
            threads.push_back(startThread("a stream", [this, &stream] { runStream(*stream); }));
        } catch (const std::exception& error) {
            fail(error.what());
            endStream();
        }
    }
    for (auto next = StopSignal::Clock::now() + kReportEvery; mStreamsEnd.waitUntil(next);
         next += kReportEvery) {
        printProgress(mStreams, mSource->isWaiting());
        tellFigures(mStreams);
    }
    for (std::thread& thread : threads)
        thread.join();
    tellFigures(mStreams);
}

void FrameSession::runStream(FrameStream& stream) {
    try {
        stream.run();
    } catch (const std::exception& error) {
        fail(error.what());
    }
    endStream();
}

void FrameSession::endStream() {
    if (--mRunning == 0) mStreamsEnd.set();
}

void FrameSession::output(const FrameHeader& captured, const ConstFrameView& picture,
                          const std::optional<FrameHeader>& replacement,
                          const std::optional<ConstFrameView>& replaced) {
    if (mPictures != nullptr) mPictures->offer(captured, picture, replacement, replaced);
    if (captured.stream == 0 && mOutput && replaced) mOutput->write(*replaced);
    if (mSetup.sheet.empty() || !isWorthShowing(captured.counter)) return;
    ContactSheet::Moment moment;
    moment.stream = captured.stream;
    moment.capturedCounter = captured.counter;
    if (replacement) {
        moment.replacedCounter = replacement->counter;
        moment.latencyNs = steadyNowNs() - replacement->captureNs;
    }
    std::lock_guard<std::mutex> lock(mLock);
    (void)mSheet.add(moment, picture, replaced);
}

void FrameSession::judge() {
    const FrameCounts sum = total(mStreams);
    if (sum.wrong > 0) fail(std::to_string(sum.wrong) + " replacements show another frame than they say");
    if (sum.copies > 0) fail(std::to_string(sum.copies) + " copies of frames were made");
    if (sum.replaced + sum.late == 0) fail("no replacement came");
    // The decoder goes on behind what it cannot read, for example the end of a file that was cut.
    const std::string complaint = mStop.isSet() ? "" : mSource->complaint();
    if (!complaint.empty()) fail(mSetup.input + " is damaged: " + complaint);
}

void FrameSession::finishFiles() {
    std::unique_lock<std::mutex> lock(mLock);
    if (!mProblem.empty()) return;
    if (!mSetup.sheet.empty() && mSheet.rows() > 0) mSheet.write(mSetup.sheet);
    if (mOutput) mOutput->finish();  // last: a run that fails leaves no output
}

// The first problem is told; the others follow from it.
void FrameSession::fail(const std::string& why) {
    mStop.set();
    std::lock_guard<std::mutex> lock(mLock);
    if (mProblem.empty()) mProblem = why;
}

}  // namespace vel::sim
