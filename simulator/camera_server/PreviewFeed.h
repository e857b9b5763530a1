#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "StopSignal.h"
#include "TestPicture.h"

class VelChiDesktopHelper;

namespace vel::sim {

/** Sends small test pictures over the application frame path, on the one thread that it wants. */
class PreviewFeed {
  public:
    /**
     * Starts, or prints an error line when there is no thread for it; ends with the signal, which outlives
     * this object.
     */
    PreviewFeed(VelChiDesktopHelper* helper, const StopSignal& end);
    /** Waits for the signal. */
    ~PreviewFeed() { join(); }
    PreviewFeed(const PreviewFeed&) = delete;
    PreviewFeed& operator=(const PreviewFeed&) = delete;

    /** Waits for the signal and the frame that is under way. */
    void join() {
        if (mThread.joinable()) mThread.join();
    }
    /** Sent so far. */
    uint64_t frames() const { return mFrames; }

  private:
    void run();
    void send(uint32_t counter);

    VelChiDesktopHelper* const mHelper;
    const StopSignal& mEnd;
    const TestPicture mPicture;
    bool mIsConnected = false;
    std::atomic<uint64_t> mFrames{0};
    std::thread mThread;
};

}  // namespace vel::sim
