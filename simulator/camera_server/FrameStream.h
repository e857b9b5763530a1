#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "FrameHeader.h"
#include "FrameView.h"
#include "LatencyStats.h"
#include "StopSignal.h"
#include "StreamEvents.h"

class VelChiDesktopHelper;
class VelImgSubHelper;

namespace vel::sim {

/**
 * What became of the frames of a stream. Every captured frame is one of replaced, late, repeated, dropped.
 */
struct FrameCounts {
    uint64_t sent = 0;      // to the application; more than captured when frames were sent again
    uint64_t replaced = 0;  // by its own replacement, in time
    uint64_t late = 0;      // the replacement of an earlier frame came instead
    uint64_t repeated = 0;  // the replacement before was used again
    uint64_t dropped = 0;   // no buffer for it, no replacement at all, or its time had passed
    uint64_t copies = 0;    // copies that somebody made of a frame on its way
    uint64_t wrong = 0;     // replacements whose picture is another than their header says

    FrameCounts& operator+=(const FrameCounts& other);
};

/**
 * One stream of a sensor, on a thread of its own: sends each frame to the application and takes the
 * replacement as its output.
 */
class FrameStream {
  public:
    // Draws the frame with that number; false at the end of the frames.
    using Draw = std::function<bool(uint32_t counter, const FrameView& frame)>;
    // A frame became its replacement, which stays valid for the call. Empty when there is none.
    using Output = std::function<void(const FrameHeader& captured, const ConstFrameView& capturedPicture,
                                      const std::optional<FrameHeader>& replacement,
                                      const std::optional<ConstFrameView>& picture)>;

    struct Setup {
        FrameSize size;
        uint32_t stream = 0;
        uint32_t count = 0;  // of frames, 0 for no limit
        int fps = 30;        // 0: as fast as the replacements come
        // Every frame is waited for, and sent again when the application comes back, instead of being
        // repeated or dropped.
        bool isLossless = false;
        bool hasCounters = false;  // the pictures carry frame counters, which are checked
        const std::atomic<bool>* isNodeGone = nullptr;  // set: frames go on without the substitution node
        Draw draw;
        Output output;
        // Gets a frame that nobody took, which only a stream that is not lossless has.
        std::function<void(const FrameHeader& captured, const ConstFrameView& picture)> unsent;
    };

    FrameStream(VelChiDesktopHelper* helper, Setup setup, const StopSignal& stop);

    /**
     * Runs the stream until its end or the signal. Throws std::runtime_error with one line when no
     * application came, when a frame that must not be lost was never replaced, and what drawing and output
     * throw.
     */
    void run();

    /** So far; any thread may call. */
    FrameCounts counts() const;
    /** From capture to replacement. Once run() has returned. */
    const LatencyStats& latency() const { return mLatency; }
    /** Those of the time since the last call, while events are wanted; any thread may call. */
    LatencyStats takeRecentLatency();

  private:
    enum class Outcome { REPLACED, LATE, REPEATED, NONE };

    /** What the library handed out, mapped; the image keeps it from being overwritten. */
    struct Taken;

    void runLive();
    void runLossless();
    bool draw();
    bool sendFirst();
    std::shared_ptr<VelImgSubHelper> node() const;
    void skipMissed();
    void exchange(VelImgSubHelper& helper);
    bool exchangeWithoutLoss();
    bool awaitReplacement(const std::shared_ptr<VelImgSubHelper>& helper);
    bool send(VelImgSubHelper& helper);
    Taken take(VelImgSubHelper& helper);
    static const char* nameOf(Outcome outcome);
    Outcome judge(const FrameHeader& header) const;
    void deliver(const Taken& taken);
    void examine(const Taken& taken);
    void count(uint64_t FrameCounts::*field, uint64_t add = 1);
    void noteLatency();
    void noteChange(Outcome outcome);
    StopSignal::Clock::time_point due() const;

    VelChiDesktopHelper* const mHelper;
    const Setup mSetup;
    const StopSignal& mStop;
    Frame mPicture;  // the frame that is under way
    uint32_t mCounter = 0;
    FrameHeader mHeader;          // of the frame that is under way
    int64_t mCaptureStartNs = 0;  // of the same, steady clock
    StopSignal::Clock::time_point mStart;
    int64_t mLastOutputNs = -1;  // capture time of the last output
    bool mIsReplacing = true;
    LatencyStats mLatency;
    StreamEvents mEvents;
    mutable std::mutex mLock;
    FrameCounts mCounts;          // guarded by mLock
    LatencyStats mRecentLatency;  // guarded by mLock
};

}  // namespace vel::sim
