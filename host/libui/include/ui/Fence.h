#pragma once

#include <android-base/unique_fd.h>
#include <utils/Errors.h>
#include <utils/LightRefBase.h>
#include <utils/StrongPointer.h>
#include <utils/Timers.h>

#include <atomic>

namespace android {

/**
 * A moment that some device or process will signal, carried by a file descriptor that becomes readable and
 * stays so. An eventfd or the read end of a pipe serves. Any thread may call; held by sp only.
 */
class Fence : public LightRefBase<Fence> {
  public:
    // The one fence that means "nothing to wait for"; compared by pointer.
    static const sp<Fence> NO_FENCE;

    static constexpr nsecs_t SIGNAL_TIME_PENDING = INT64_MAX;
    static constexpr nsecs_t SIGNAL_TIME_INVALID = -1;

    enum { TIMEOUT_NEVER = -1 };

    enum class Status {
        Invalid,     // its descriptor cannot be waited for
        Unsignaled,  // still to come
        Signaled,    // has come, or there is nothing to wait for
    };

    /** An invalid fence: nothing to wait for. */
    Fence() = default;
    /** Takes over the descriptor; -1 makes an invalid fence. */
    explicit Fence(int fenceFd);
    explicit Fence(base::unique_fd fenceFd);
    Fence(const Fence&) = delete;
    Fence& operator=(const Fence&) = delete;

    bool isValid() const { return mFenceFd != -1; }

    /**
     * Waits up to timeoutMs milliseconds, below 0 without limit. 0 when signalled or invalid, -ETIME when the
     * time has passed, -EINVAL for a descriptor that is not open, else -errno of the wait.
     */
    status_t wait(int timeoutMs);

    /** Waits without limit; after 3 s it logs that logname is still waiting. */
    status_t waitForever(const char* logname);

    /**
     * A fence that signals when both have: NO_FENCE when both are invalid or it cannot be made, a copy of the
     * valid one when only one is. Neither argument may be null.
     */
    static sp<Fence> merge(const char* name, const sp<Fence>& f1, const sp<Fence>& f2);

    /** A new descriptor that the caller closes, or -1 for an invalid fence. */
    int dup() const;
    /** The fence's own descriptor, borrowed, or -1. */
    int get() const { return mFenceFd.get(); }

    Status getStatus();

    /**
     * When the fence signalled, as far as this object saw it: SIGNAL_TIME_INVALID for an invalid fence,
     * SIGNAL_TIME_PENDING before, then the monotonic time (ns) of the first call that found it signalled.
     */
    nsecs_t getSignalTime() const;

  private:
    friend class LightRefBase<Fence>;
    ~Fence() = default;

    const base::unique_fd mFenceFd;
    mutable std::atomic<nsecs_t> mSignalTime{SIGNAL_TIME_PENDING};
};

}  // namespace android
