#include "EventCollector.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>
#include <utility>

#include "Spawn.h"
#include "StartThread.h"

namespace vel::sim {

using android::base::unique_fd;

EventCollector::EventCollector(OnLine onLine)
    : mOnLine(std::move(onLine)), mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (mWake < 0) throw std::system_error(errno, std::generic_category(), "no descriptor for the events");
    mThread = startThread("the events", [this] { run(); });
}

unique_fd EventCollector::open() {
    Pipe pipe = openPipe();
    (void)fcntl(pipe.parent, F_SETFL, O_RDONLY | O_NONBLOCK);
    {
        std::lock_guard<std::mutex> lock(mLock);
        mNewSources.push_back({std::move(pipe.parent), "", false});
    }
    eventfd_write(mWake, 1);
    return std::move(pipe.child);
}

void EventCollector::finish() {
    if (!mThread.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mIsOver = true;
    }
    eventfd_write(mWake, 1);
    mThread.join();
}

void EventCollector::run() {
    for (bool isOver = false; !isOver;) {
        std::vector<pollfd> waits{{mWake, POLLIN, 0}};
        for (const Source& source : mSources)
            waits.push_back({source.fd, POLLIN, 0});
        (void)poll(waits.data(), waits.size(), -1);
        eventfd_t ignored = 0;
        eventfd_read(mWake, &ignored);
        {
            std::lock_guard<std::mutex> lock(mLock);
            isOver = mIsOver;
            std::move(mNewSources.begin(), mNewSources.end(), std::back_inserter(mSources));
            mNewSources.clear();
        }
        while (readAll() && isOver) {
        }
    }
}

// Reads once from each source; false when none had anything.
bool EventCollector::readAll() {
    bool hasRead = false;
    for (Source& source : mSources)
        hasRead = read(source) || hasRead;
    mSources.erase(
        std::remove_if(mSources.begin(), mSources.end(), [](const Source& source) { return source.fd < 0; }),
        mSources.end());
    return hasRead;
}

// False when there is nothing to read; closes a source that has ended.
bool EventCollector::read(Source& source) {
    char buffer[16 * 1024];
    const ssize_t count = ::read(source.fd, buffer, sizeof(buffer));
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return false;
    if (count <= 0) {
        source.fd.reset();
        return false;
    }
    source.pending.append(buffer, static_cast<size_t>(count));
    deliver(source);
    return true;
}

void EventCollector::deliver(Source& source) {
    size_t start = 0;
    for (size_t end = 0; (end = source.pending.find('\n', start)) != std::string::npos; start = end + 1) {
        const bool isRest = std::exchange(source.isSkipping, false);
        if (!isRest) mOnLine(source.pending.substr(start, end - start));
    }
    source.pending.erase(0, start);
    if (source.pending.size() <= kMaxLineBytes) return;
    source.pending.clear();
    source.isSkipping = true;
}

}  // namespace vel::sim
