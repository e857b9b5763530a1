#pragma once

#include <android-base/unique_fd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "FrameHeader.h"
#include "FrameView.h"
#include "PicturePacket.h"

namespace vel::sim {

/**
 * Sends small pictures of the frames of the streams that are watched, captured and replaced side by side, to
 * whoever shows them: at most fifteen a second and stream. What the receiver is too slow for is dropped. Any
 * thread may call.
 */
class PictureTap {
  public:
    /**
     * socket: takes packets of a PicturePacket and a JPEG, and becomes this object's; negative for none, and
     * then nothing is done. Throws std::system_error without a thread.
     */
    explicit PictureTap(int socket);
    ~PictureTap();
    PictureTap(const PictureTap&) = delete;
    PictureTap& operator=(const PictureTap&) = delete;

    /** True for lines that execute() understands: those that begin with the word pictures. */
    static bool isCommand(const std::string& line);
    /** "pictures 0,2" says which streams are watched, "pictures none" that none is. False, said in a line. */
    bool execute(const std::string& line);

    /**
     * A frame and its replacement, which stay the caller's. Makes a small copy of both when it is time for a
     * picture of the stream, and never waits for the receiver. One thread a stream.
     */
    void offer(const FrameHeader& captured, const ConstFrameView& picture,
               const std::optional<FrameHeader>& replacement, const std::optional<ConstFrameView>& replaced);

  private:
    using Clock = std::chrono::steady_clock;

    struct Stream {
        std::mutex lock;             // guards what follows
        std::optional<Frame> small;  // both pictures, kept for the next one
        uint32_t frame = 0;
        bool isNew = false;
        Clock::time_point due;
        int64_t replacementNs = 0;  // capture time of the newest replacement
    };

    void run();
    bool waitForNew();
    void send(uint32_t index);
    bool sendPacket(const PicturePacket& start, const Frame& picture, int quality) const;

    const android::base::unique_fd mSocket;
    std::atomic<uint32_t> mWatched{0};  // a bit a stream
    std::array<Stream, kMaxPictureStreams> mStreams;
    std::mutex mLock;
    std::condition_variable mChanged;
    bool mHasNew = false;  // guarded by mLock
    bool mIsOver = false;  // guarded by mLock
    std::thread mThread;   // last: it uses the members above
};

}  // namespace vel::sim
