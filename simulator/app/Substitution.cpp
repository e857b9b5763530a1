#include "Substitution.h"

#include <condition_variable>
#include <mutex>

#include "EventWriter.h"
#include "FrameBuffer.h"
#include "FrameHeader.h"
#include "Program.h"
#include "Timeline.h"

namespace vel::sim {

using android::BufferItem;
using android::GraphicBuffer;
using android::sp;

// Counts the frames that wait.
class Substitution::Waker : public android::ConsumerBase::FrameAvailableListener {
  public:
    void onFrameAvailable(const BufferItem&) override { add(false); }
    void stop() { add(true); }
    // Waits for the next frame; false when it is over.
    bool wait() {
        std::unique_lock<std::mutex> lock(mLock);
        mChanged.wait(lock, [this] { return mStopped || mWaiting > 0; });
        if (mStopped) return false;
        --mWaiting;
        return true;
    }

  private:
    void add(bool stop) {
        {
            std::lock_guard<std::mutex> lock(mLock);
            ++mWaiting;
            mStopped = mStopped || stop;
        }
        mChanged.notify_all();
    }

    std::mutex mLock;
    std::condition_variable mChanged;
    uint64_t mWaiting = 0;  // guarded by mLock
    bool mStopped = false;  // guarded by mLock
};

Substitution::Substitution(const FrameConfiguration& configuration, const sp<HidlProducer>& reader)
    : mConfiguration(configuration), mEffect(configuration.effect), mReplacements(reader), mWaker(new Waker) {
    mQueue.consumer->setFrameAvailableListener(mWaker);
    mThread = std::thread([this] { run(); });
}

Substitution::~Substitution() {
    mQueue.consumer->abandon();
    mWaker->stop();
    mThread.join();
}

void Substitution::run() {
    while (mWaker->wait()) {
        BufferItem item;
        if (mQueue.consumer->acquireBuffer(&item, 0) != android::NO_ERROR) continue;
        if (mConfiguration.holds(mReplaced)) {
            printLine("frames held");
            while (mWaker->wait()) {
            }
            return;
        }
        replace(item);
        mQueue.consumer->releaseBuffer(item);
    }
}

void Substitution::replace(const BufferItem& item) {
    const auto rowBytes = static_cast<uint32_t>(frameRowBytes(mConfiguration.size));
    const MappedBuffer captured(item.mGraphicBuffer, GraphicBuffer::USAGE_SW_READ_OFTEN);
    if (item.mGraphicBuffer->getWidth() != rowBytes || captured.data() == nullptr) {
        lose("it has another size");
        return;
    }
    const int64_t startNs = steadyNowNs();
    const uint64_t memory = memoryIdentity(*item.mGraphicBuffer);
    const bool sent = mReplacements.send(
        rowBytes, item.mTimestamp,
        [&](const sp<GraphicBuffer>& replacement) { process(captured.data(), memory, replacement); });
    if (sent) {
        ++mReplaced;
    } else {
        lose("the HAL takes no replacement: status " + std::to_string(mReplacements.status()));
    }
    if (events::areWanted()) tell(readFrameHeader(captured.data(), mConfiguration.size), startNs);
}

void Substitution::tell(const FrameHeader& header, int64_t startNs) {
    if (header.stream > 3) return;  // the HAL may send anything
    const Track track = streamTrack(header.stream);
    events::flowStep(track, "frame", "frame", flowIdOf(header), startNs);
    events::slice(track, "frame", "process", startNs, steadyNowNs(),
                  JsonObject().add("frame", header.counter));
}

void Substitution::process(const uint8_t* captured, uint64_t capturedMemory,
                           const sp<GraphicBuffer>& replacement) {
    const FrameSize size = mConfiguration.size;
    const MappedBuffer mapped(replacement, GraphicBuffer::USAGE_SW_WRITE_OFTEN);
    if (mapped.data() == nullptr) return;
    const Effect effect = mEffect;
    if (mFilter == nullptr || mFilter->effect() != effect)
        mFilter = std::make_unique<EffectFilter>(effect, size);
    mFilter->apply(ConstFrameView(captured, size), FrameView(mapped.data(), size));
    copyFrameHeader(captured, mapped.data(), size);
    FrameHeader header = readFrameHeader(captured, size);
    if (header.memory != capturedMemory) ++header.copiesMade;
    header.memory = memoryIdentity(*replacement);
    writeFrameHeader(mapped.data(), size, header);
}

void Substitution::lose(const std::string& why) {
    if (mLost++ == 0) printLine("frames lost: %s", why.c_str());
}

}  // namespace vel::sim
