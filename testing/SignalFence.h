#pragma once

#include <sys/eventfd.h>
#include <ui/Fence.h>
#include <unistd.h>

/** A fence that a test signals when it likes, from any thread. */
class SignalFence {
  public:
    SignalFence()
        : mEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), mFence(new android::Fence(::dup(mEvent))) {}
    ~SignalFence() { close(mEvent); }
    SignalFence(const SignalFence&) = delete;
    SignalFence& operator=(const SignalFence&) = delete;

    const android::sp<android::Fence>& fence() const { return mFence; }
    void signal() { (void)!eventfd_write(mEvent, 1); }

  private:
    const int mEvent;
    const android::sp<android::Fence> mFence;
};
