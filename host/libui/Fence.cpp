#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <ui/Fence.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <thread>

namespace android {

namespace {

constexpr char kTag[] = "Fence";
constexpr int kWaitWarningMs = 3000;

base::unique_fd duplicate(int fd) {
    return base::unique_fd(fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

// poll() of one descriptor that survives signals without extending the wait.
status_t waitReadable(int fd, int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (int left = timeoutMs;;) {
        pollfd waited{fd, POLLIN, 0};
        const int count = poll(&waited, 1, left);
        if (count > 0) return waited.revents & (POLLERR | POLLNVAL) ? -EINVAL : NO_ERROR;
        if (count == 0) return -ETIME;
        if (errno != EINTR && errno != EAGAIN) return -errno;
        if (timeoutMs > 0) {
            const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
            left = rest > 0 ? static_cast<int>(rest) : 0;
        }
    }
}

// Waits for one descriptor; false when nobody holds the merged fence any more.
bool waitWhileWanted(int fd, int mergedWriteEnd) {
    std::array<pollfd, 2> waited{{{fd, POLLIN, 0}, {mergedWriteEnd, 0, 0}}};
    while (poll(waited.data(), waited.size(), -1) < 0) {
        if (errno != EINTR && errno != EAGAIN) return true;
    }
    return waited[1].revents == 0;
}

void signalAfterBoth(base::unique_fd first, base::unique_fd second, base::unique_fd merged) {
    if (!waitWhileWanted(first, merged) || !waitWhileWanted(second, merged)) return;
    const char signal = 1;
    (void)!send(merged, &signal, sizeof(signal), MSG_NOSIGNAL);
}

// The end to wait on of a pair whose other end is served by a thread of its own. A socket pair, since its
// sender sees when the last reader is gone and can be spared SIGPIPE.
base::unique_fd watchBoth(base::unique_fd first, base::unique_fd second) {
    int ends[2];
    if (first == -1 || second == -1) return {};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return {};
    base::unique_fd readEnd(ends[0]);
    std::thread(signalAfterBoth, std::move(first), std::move(second), base::unique_fd(ends[1])).detach();
    return readEnd;
}

}  // namespace

const sp<Fence> Fence::NO_FENCE = sp<Fence>(new Fence);

Fence::Fence(int fenceFd) : mFenceFd(fenceFd) {}

Fence::Fence(base::unique_fd fenceFd) : mFenceFd(std::move(fenceFd)) {}

status_t Fence::wait(int timeoutMs) {
    if (!isValid()) return NO_ERROR;
    return waitReadable(mFenceFd, timeoutMs < 0 ? TIMEOUT_NEVER : timeoutMs);
}

status_t Fence::waitForever(const char* logname) {
    const status_t status = wait(kWaitWarningMs);
    if (status != -ETIME) return status;
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: fence %d has not signalled in %d ms", logname,
                        mFenceFd.get(), kWaitWarningMs);
    return wait(TIMEOUT_NEVER);
}

sp<Fence> Fence::merge(const char* name, const sp<Fence>& f1, const sp<Fence>& f2) {
    // Nothing is left to wait for on a fence that is invalid or has signalled.
    const bool firstDone = !f1->isValid() || f1->wait(0) == NO_ERROR;
    const bool secondDone = !f2->isValid() || f2->wait(0) == NO_ERROR;
    base::unique_fd merged;
    if (!f1->isValid() && !f2->isValid()) return NO_FENCE;
    if (f1->isValid() && (secondDone || !f2->isValid())) {
        merged = duplicate(f1->get());
    } else if (firstDone) {
        merged = duplicate(f2->get());
    } else {
        merged = watchBoth(duplicate(f1->get()), duplicate(f2->get()));
    }
    if (merged == -1) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "merge: \"%s\": cannot merge fences %d and %d", name,
                            f1->get(), f2->get());
        return NO_FENCE;
    }
    return sp<Fence>(new Fence(std::move(merged)));
}

int Fence::dup() const {
    return isValid() ? duplicate(mFenceFd).release() : -1;
}

Fence::Status Fence::getStatus() {
    switch (wait(0)) {
        case NO_ERROR:
            return Status::Signaled;
        case -ETIME:
            return Status::Unsignaled;
        default:
            return Status::Invalid;
    }
}

nsecs_t Fence::getSignalTime() const {
    if (!isValid()) return SIGNAL_TIME_INVALID;
    nsecs_t seen = mSignalTime;
    if (seen != SIGNAL_TIME_PENDING) return seen;
    if (waitReadable(mFenceFd, 0) != NO_ERROR) return SIGNAL_TIME_PENDING;
    const nsecs_t now = systemTime(SYSTEM_TIME_MONOTONIC);
    return mSignalTime.compare_exchange_strong(seen, now) ? now : seen;
}

}  // namespace android
