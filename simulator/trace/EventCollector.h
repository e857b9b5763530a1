#pragma once

#include <android-base/unique_fd.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vel::sim {

/** Reads the events of programs from pipes, all on one thread. */
class EventCollector {
  public:
    // A line, without its newline; on the reading thread.
    using OnLine = std::function<void(const std::string& line)>;

    static constexpr size_t kMaxLineBytes = size_t{128} * 1024;

    /**
     * Starts to read. Throws std::system_error without descriptors or a thread.
     */
    explicit EventCollector(OnLine onLine);
    ~EventCollector() { finish(); }
    EventCollector(const EventCollector&) = delete;
    EventCollector& operator=(const EventCollector&) = delete;

    /**
     * A new pipe's write end, closed in every child but those that are told to keep it: for one start of one
     * program, after which the caller lets go of it. A line that its program left unfinished is dropped, and
     * so is one above kMaxLineBytes. Throws std::system_error without descriptors. Any thread.
     */
    android::base::unique_fd open();

    /** Delivers what the programs have written by now, and ends. */
    void finish();

  private:
    struct Source {
        android::base::unique_fd fd;
        std::string pending;
        bool isSkipping = false;  // the rest of a line that is too long
    };

    void run();
    bool readAll();
    bool read(Source& source);
    void deliver(Source& source);

    const OnLine mOnLine;
    const android::base::unique_fd mWake;
    std::vector<Source> mSources;  // the reading thread's
    std::mutex mLock;
    std::vector<Source> mNewSources;  // guarded by mLock
    bool mIsOver = false;             // guarded by mLock
    std::thread mThread;              // last: it uses the members above
};

}  // namespace vel::sim
