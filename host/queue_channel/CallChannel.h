#pragma once

#include <condition_variable>
#include <mutex>
#include <vector>

#include "Packet.h"

namespace vel::queue_channel {

/**
 * The caller's end of a channel: requests of any thread, several at a time.
 *
 * A caller sends its request and reads the reply itself. While several wait, one of them reads for all, and
 * hands the reading on once it has its own reply; so a single caller is never woken by another thread.
 */
class CallChannel {
  public:
    struct Answer {
        Reply reply;
        android::hardware::hidl_handle handle;
    };

    /** Without a socket every call fails. */
    explicit CallChannel(android::base::unique_fd socket);

    /**
     * Sends the request, to which it gives its number, with the fence, and waits for the answer without limit
     * and without a lock. Fails with DEAD_OBJECT once the other end is gone or has sent a packet that makes
     * no sense, or has itself failed so, and with FAILED_TRANSACTION when this request cannot be carried.
     */
    android::hardware::Status call(Request request, const android::hardware::hidl_handle& fence,
                                   Answer* answer);

  private:
    struct Call {
        const Operation operation;
        Answer* answer;  // null: answered
        uint32_t number = 0;
        bool isSent = false;
        std::condition_variable mayGoOn{};  // answered, ended, or nobody reads
    };

    int32_t exchange(Request& request, const android::hardware::hidl_handle& fence, Answer* answer);
    void handReadingOn();
    void readOne(std::unique_lock<std::mutex>& lock);
    bool deliver(Answer& answer);
    void end();

    const android::base::unique_fd mSocket;

    std::mutex mLock;  // guards the fields below
    uint32_t mLastNumber = 0;
    std::vector<Call*> mCalls;
    bool mIsRead = false;  // by one of the calls
    bool mHasEnded = false;
};

}  // namespace vel::queue_channel
