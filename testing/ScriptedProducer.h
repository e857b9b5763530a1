#pragma once

#include <gui/IGraphicBufferProducer.h>

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/**
 * A producer that answers as it is told, for what a real queue never does (hostile slots, foreign flags, late
 * fences, refusals), and that records what it was asked. Answers are taken in order for each operation;
 * without one, dequeueBuffer answers NO_INIT and everything else 0. Threads may call at once.
 */
class ScriptedProducer : public android::IGraphicBufferProducer {
  public:
    struct Dequeue {
        android::status_t status;
        int slot = -1;
        android::sp<android::Fence> fence = android::Fence::NO_FENCE;  // may be null
    };
    struct Request {
        android::status_t status;
        android::sp<android::GraphicBuffer> buffer;  // null: a new one on status 0, else none
    };

    void onDequeue(const Dequeue& answer) { append(mDequeues, answer); }
    void onRequest(const Request& answer) { append(mRequests, answer); }
    void onQueue(android::status_t status) { append(mQueues, status); }
    void onConnect(android::status_t status) { append(mConnects, status); }
    void onDisconnect(android::status_t status) { append(mDisconnects, status); }
    void onSetMax(android::status_t status) { append(mSetMaxes, status); }
    /** Runs inside every later dequeueBuffer, on the caller's thread and without this object's lock. */
    void whileDequeueing(std::function<void()> action);

    /**
     * What was called so far, as text: "connect api 4", "setMax 6", "dequeue 640x480 format 1 usage 0x20",
     * "request 3", "queue 3", "cancel 3", "disconnect api 4 mode 0". Listeners, "by app" and out pointers are
     * told only when they are not the usual ones: "connect api 4 listener", "connect api 4 by app".
     */
    std::vector<std::string> calls() const { return copyOf(mCalls); }
    std::vector<QueueBufferInput> queued() const { return copyOf(mQueued); }
    std::vector<android::sp<android::Fence>> cancelledFences() const { return copyOf(mCancelledFences); }
    void forgetCalls();

    android::status_t requestBuffer(int slot, android::sp<android::GraphicBuffer>* buf) override;
    android::status_t setMaxDequeuedBufferCount(int maxDequeuedBuffers) override;
    android::status_t dequeueBuffer(int* slot, android::sp<android::Fence>* fence, uint32_t w, uint32_t h,
                                    android::PixelFormat format, uint64_t usage, uint64_t* outBufferAge,
                                    android::FrameEventHistoryDelta* outTimestamps) override;
    android::status_t queueBuffer(int slot, const QueueBufferInput& input,
                                  QueueBufferOutput* output) override;
    android::status_t cancelBuffer(int slot, const android::sp<android::Fence>& fence) override;
    android::status_t connect(const android::sp<android::IProducerListener>& listener, int api,
                              bool producerControlledByApp, QueueBufferOutput* output) override;
    android::status_t disconnect(int api, DisconnectMode mode) override;
    android::status_t setDequeueTimeout(nsecs_t) override { return android::NO_ERROR; }

  private:
    template <typename Answer>
    void append(std::deque<Answer>& answers, const Answer& answer) {
        std::lock_guard<std::mutex> lock(mLock);
        answers.push_back(answer);
    }
    template <typename Values>
    Values copyOf(const Values& values) const {
        std::lock_guard<std::mutex> lock(mLock);
        return values;
    }

    mutable std::mutex mLock;  // guards every member below
    std::deque<Dequeue> mDequeues;
    std::deque<Request> mRequests;
    std::deque<android::status_t> mQueues, mConnects, mDisconnects, mSetMaxes;
    std::function<void()> mWhileDequeueing;
    std::vector<std::string> mCalls;
    std::vector<QueueBufferInput> mQueued;
    std::vector<android::sp<android::Fence>> mCancelledFences;
};
