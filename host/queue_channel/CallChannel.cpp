#include "CallChannel.h"

#include <android/log.h>
#include <sys/socket.h>
#include <utils/Errors.h>

#include <algorithm>
#include <cerrno>

namespace vel::queue_channel {

using android::hardware::hidl_handle;
using android::hardware::Status;

CallChannel::CallChannel(android::base::unique_fd socket)
    : mSocket(std::move(socket)), mHasEnded(mSocket.get() < 0) {}

Status CallChannel::call(Request request, const hidl_handle& fence, Answer* answer) {
    int32_t failure = exchange(request, fence, answer);
    if (failure == android::OK) failure = answer->reply.failure;
    const bool isKnown = failure == android::OK || failure == android::DEAD_OBJECT;
    return Status::fromStatusT(isKnown ? failure : android::FAILED_TRANSACTION);
}

int32_t CallChannel::exchange(Request& request, const hidl_handle& fence, Answer* answer) {
    Call call{request.operation, answer};
    std::unique_lock<std::mutex> lock(mLock);
    if (mHasEnded) return android::DEAD_OBJECT;
    call.number = request.number = ++mLastNumber;
    mCalls.push_back(&call);
    lock.unlock();
    const int error = send(mSocket, &request, sizeof(request), fence, 0);
    lock.lock();
    if (error == EPIPE) end();
    call.isSent = true;
    while (error == 0 && call.answer != nullptr && !mHasEnded) {
        if (mIsRead) {
            call.mayGoOn.wait(lock);
        } else {
            readOne(lock);
        }
    }
    mCalls.erase(std::find(mCalls.begin(), mCalls.end(), &call));
    handReadingOn();
    if (call.answer == nullptr) return android::OK;
    return mHasEnded ? android::DEAD_OBJECT : android::FAILED_TRANSACTION;
}

// One that still sends will see for itself that nobody reads.
void CallChannel::handReadingOn() {
    if (mIsRead) return;
    const auto next =
        std::find_if(mCalls.begin(), mCalls.end(), [](const Call* call) { return call->isSent; });
    if (next != mCalls.end()) (*next)->mayGoOn.notify_one();
}

void CallChannel::readOne(std::unique_lock<std::mutex>& lock) {
    mIsRead = true;
    lock.unlock();
    Answer answer;
    const Received received = receive(mSocket, &answer.reply, &answer.handle);
    lock.lock();
    mIsRead = false;
    if (received == Received::PACKET && deliver(answer)) return;
    if (received != Received::END) {
        const bool isOurs = received == Received::NO_DESCRIPTOR;
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "A buffer queue has sent %s",
                            isOurs ? "what there is no descriptor for" : "a packet that makes no sense");
    }
    end();
}

// False for a reply to nothing that was asked.
bool CallChannel::deliver(Answer& answer) {
    const Reply& reply = answer.reply;
    const auto asked = std::find_if(mCalls.begin(), mCalls.end(), [&](const Call* call) {
        return call->answer != nullptr && call->number == reply.number && call->operation == reply.operation;
    });
    if (asked == mCalls.end()) return false;
    *std::exchange((*asked)->answer, nullptr) = std::move(answer);
    (*asked)->mayGoOn.notify_one();
    return true;
}

void CallChannel::end() {
    mHasEnded = true;
    (void)shutdown(mSocket.get(), SHUT_RDWR);
    for (Call* call : mCalls)
        call->mayGoOn.notify_one();
}

}  // namespace vel::queue_channel
