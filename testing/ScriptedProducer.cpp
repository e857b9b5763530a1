#include "ScriptedProducer.h"

#include <stdio.h>

using namespace android;

namespace {

template <typename Answer>
Answer takeOr(std::deque<Answer>& answers, const Answer& fallback) {
    if (answers.empty()) return fallback;
    const Answer answer = answers.front();
    answers.pop_front();
    return answer;
}

}  // namespace

void ScriptedProducer::whileDequeueing(std::function<void()> action) {
    std::lock_guard<std::mutex> lock(mLock);
    mWhileDequeueing = std::move(action);
}

void ScriptedProducer::forgetCalls() {
    std::lock_guard<std::mutex> lock(mLock);
    mCalls.clear();
    mQueued.clear();
    mCancelledFences.clear();
}

status_t ScriptedProducer::requestBuffer(int slot, sp<GraphicBuffer>* buf) {
    std::lock_guard<std::mutex> lock(mLock);
    mCalls.push_back("request " + std::to_string(slot));
    const Request answer = takeOr(mRequests, Request{NO_ERROR, nullptr});
    *buf = answer.buffer;
    if (answer.status == NO_ERROR && answer.buffer == nullptr)
        *buf = new GraphicBuffer(16, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE, 1, GRALLOC_USAGE_SW_WRITE_OFTEN);
    return answer.status;
}

status_t ScriptedProducer::setMaxDequeuedBufferCount(int maxDequeuedBuffers) {
    std::lock_guard<std::mutex> lock(mLock);
    mCalls.push_back("setMax " + std::to_string(maxDequeuedBuffers));
    return takeOr(mSetMaxes, status_t{NO_ERROR});
}

status_t ScriptedProducer::dequeueBuffer(int* slot, sp<Fence>* fence, uint32_t w, uint32_t h,
                                         PixelFormat format, uint64_t usage, uint64_t* outBufferAge,
                                         FrameEventHistoryDelta* outTimestamps) {
    char call[128];
    snprintf(call, sizeof(call), "dequeue %ux%u format %d usage %#llx%s", w, h, format,
             static_cast<unsigned long long>(usage), outTimestamps != nullptr ? " timestamps" : "");
    std::function<void()> action;
    Dequeue answer;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mCalls.push_back(call);
        answer = takeOr(mDequeues, Dequeue{NO_INIT});
        action = mWhileDequeueing;
    }
    if (action) action();
    *slot = answer.slot;
    *fence = answer.fence;
    if (outBufferAge != nullptr) *outBufferAge = 0;
    return answer.status;
}

status_t ScriptedProducer::queueBuffer(int slot, const QueueBufferInput& input,
                                       QueueBufferOutput* /*output*/) {
    std::lock_guard<std::mutex> lock(mLock);
    mCalls.push_back("queue " + std::to_string(slot));
    mQueued.push_back(input);
    return takeOr(mQueues, status_t{NO_ERROR});
}

status_t ScriptedProducer::cancelBuffer(int slot, const sp<Fence>& fence) {
    std::lock_guard<std::mutex> lock(mLock);
    mCalls.push_back("cancel " + std::to_string(slot));
    mCancelledFences.push_back(fence);
    return NO_ERROR;
}

status_t ScriptedProducer::connect(const sp<IProducerListener>& listener, int api,
                                   bool producerControlledByApp, QueueBufferOutput* /*output*/) {
    std::lock_guard<std::mutex> lock(mLock);
    mCalls.push_back("connect api " + std::to_string(api) + (listener != nullptr ? " listener" : "") +
                     (producerControlledByApp ? " by app" : ""));
    return takeOr(mConnects, status_t{NO_ERROR});
}

status_t ScriptedProducer::disconnect(int api, DisconnectMode mode) {
    std::lock_guard<std::mutex> lock(mLock);
    mCalls.push_back("disconnect api " + std::to_string(api) + " mode " +
                     std::to_string(static_cast<int>(mode)));
    return takeOr(mDisconnects, status_t{NO_ERROR});
}
