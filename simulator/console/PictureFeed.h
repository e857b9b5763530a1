#pragma once

#include <android-base/unique_fd.h>

#include <array>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "PicturePacket.h"

namespace vel::sim {

/**
 * The newest picture of each stream, for every browser that watches it. Any thread may call, except where
 * said. Whoever is slow misses pictures.
 */
class PictureFeed {
  public:
    // Told the streams that somebody watches, as in "0,2", or "none", when that changes.
    using OnWatched = std::function<void(const std::string& streams)>;

    /** A browser that watches a stream, from then on until it goes. */
    class Viewer;

    /** The listener is called under a lock of this object, which it must not call back into. */
    explicit PictureFeed(OnWatched onWatched) : mOnWatched(std::move(onWatched)) {}
    /** After the last viewer. */
    ~PictureFeed();
    PictureFeed(const PictureFeed&) = delete;
    PictureFeed& operator=(const PictureFeed&) = delete;

    /**
     * Takes the packets of a socket, on a thread of its own, until the other end closes; in place of the one
     * before, whose other end must be closed. One thread. Tells the listener.
     */
    void readFrom(android::base::unique_fd socket);
    /** Ends every wait, now and later. */
    void close();

  private:
    struct Stream {
        int viewers = 0;
        uint64_t number = 0;  // of the newest picture, from 1 on
        std::shared_ptr<const std::string> jpeg;
    };

    void read(int socket);
    void add(const PicturePacket& packet, std::string jpeg);
    void addViewer(uint32_t stream, int count);
    std::string watched() const;

    const OnWatched mOnWatched;
    mutable std::mutex mLock;
    std::condition_variable mChanged;
    std::array<Stream, kMaxPictureStreams> mStreams;  // guarded by mLock
    bool mIsClosed = false;                           // guarded by mLock
    android::base::unique_fd mStop;
    std::thread mReader;
};

class PictureFeed::Viewer {
  public:
    Viewer(PictureFeed& feed, uint32_t stream) : mFeed(feed), mStream(stream) { mFeed.addViewer(stream, 1); }
    ~Viewer() { mFeed.addViewer(mStream, -1); }
    Viewer(const Viewer&) = delete;
    Viewer& operator=(const Viewer&) = delete;

    /** A picture that it has not seen, waited for at most a second; null without one, or once closed. */
    std::shared_ptr<const std::string> next();
    bool isOver() const;

  private:
    PictureFeed& mFeed;
    const uint32_t mStream;
    uint64_t mSeen = 0;
};

}  // namespace vel::sim
