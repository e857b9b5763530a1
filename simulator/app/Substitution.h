#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "ConsumerQueue.h"
#include "Effects.h"
#include "FrameConfiguration.h"
#include "FrameHeader.h"
#include "ReplacementQueue.h"

namespace vel::sim {

/** Makes a replacement of each frame of image substitution, on a thread of its own, and sends it back. */
class Substitution {
  public:
    /** Starts. Replacements go to the HAL's reader. */
    Substitution(const FrameConfiguration& configuration, const android::sp<HidlProducer>& reader);
    /** Ends it, after the frame that is under way. */
    ~Substitution();
    Substitution(const Substitution&) = delete;
    Substitution& operator=(const Substitution&) = delete;

    const ConsumerQueue& queue() const { return mQueue; }
    /** Whether the HAL's reader took the connection. Before the first frame only. */
    android::status_t status() const { return mReplacements.status(); }
    /** Of the frames from then on. Any thread. */
    void setEffect(Effect effect) { mEffect = effect; }
    /** So far. Any thread. */
    uint64_t replaced() const { return mReplaced; }
    uint64_t lost() const { return mLost; }

  private:
    class Waker;

    void run();
    void replace(const android::BufferItem& item);
    void process(const uint8_t* captured, uint64_t capturedMemory,
                 const android::sp<android::GraphicBuffer>& replacement);
    static void tell(const FrameHeader& header, int64_t startNs);
    void lose(const std::string& why);

    const FrameConfiguration mConfiguration;
    std::atomic<Effect> mEffect;
    std::unique_ptr<EffectFilter> mFilter;  // the thread's
    ReplacementQueue mReplacements;
    const ConsumerQueue mQueue;
    const android::sp<Waker> mWaker;
    std::atomic<uint64_t> mReplaced{0};
    std::atomic<uint64_t> mLost{0};
    std::thread mThread;  // last: it uses the members above
};

}  // namespace vel::sim
