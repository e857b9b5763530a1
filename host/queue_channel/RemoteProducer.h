#pragma once

#include <cstring>

#include "CallChannel.h"

namespace vel::queue_channel {

/**
 * The producer's end of a buffer queue in another process. Statuses and flags are the queue's own; memory and
 * fences arrive as descriptors, of which each reply's are closed when the reply function has returned.
 *
 * Calls block until the queue answers, a dequeue therefore as long as the queue lets it wait; they hold no
 * lock and may come from any thread, several at a time. A call fails as CallChannel::call() tells, and with
 * FAILED_TRANSACTION for a fence of several descriptors.
 */
class RemoteProducer : public IGraphicBufferProducer {
  public:
    template <typename T>
    using Return = android::hardware::Return<T>;
    using hidl_handle = android::hardware::hidl_handle;
    using PixelFormat = android::hardware::graphics::common::V1_0::PixelFormat;
    using IProducerListener = android::hardware::graphics::bufferqueue::V1_0::IProducerListener;

    explicit RemoteProducer(android::base::unique_fd channel) : mChannel(std::move(channel)) {}

    bool isRemote() const override { return true; }

    Return<void> requestBuffer(int32_t slot, requestBuffer_cb reply) override {
        return ask(reply, on(slot, Operation::REQUEST_BUFFER), {}, [&](Answer& answer) {
            reply(answer.reply.status, {std::move(answer.handle), answer.reply.attributes});
        });
    }
    Return<void> dequeueBuffer(uint32_t width, uint32_t height, PixelFormat format, uint32_t usage,
                               bool /*getFrameTimestamps*/, dequeueBuffer_cb reply) override {
        Request request(Operation::DEQUEUE_BUFFER);
        request.width = width;
        request.height = height;
        request.format = format;
        request.usage = usage;
        return ask(reply, request, {},
                   [&](Answer& answer) { reply(answer.reply.status, answer.reply.slot, answer.handle, {}); });
    }
    /** Damage does not cross: the queue has none. */
    Return<void> queueBuffer(int32_t slot, const QueueBufferInput& input, queueBuffer_cb reply) override {
        Request request = on(slot, Operation::QUEUE_BUFFER);
        request.value = input.timestamp;
        request.option = input.isAutoTimestamp;
        request.dataSpace = input.dataSpace;
        request.scalingMode = input.scalingMode;
        request.crop = input.crop;
        request.transform = input.transform;
        request.stickyTransform = input.stickyTransform;
        return ask(reply, request, input.fence,
                   [&](Answer& answer) { reply(answer.reply.status, outputOf(answer.reply)); });
    }
    Return<int32_t> cancelBuffer(int32_t slot, const hidl_handle& fence) override {
        return askStatus(on(slot, Operation::CANCEL_BUFFER), fence);
    }
    /** A listener other than null does not cross. */
    Return<void> connect(const android::sp<IProducerListener>& listener, int32_t api, bool byApp,
                         connect_cb reply) override {
        if (listener != nullptr) return Status::fromStatusT(android::UNKNOWN_TRANSACTION);
        return ask(reply, Request(Operation::CONNECT, api, byApp), {},
                   [&](Answer& answer) { reply(answer.reply.status, outputOf(answer.reply)); });
    }
    Return<int32_t> disconnect(int32_t api, DisconnectMode mode) override {
        return askStatus(Request(Operation::DISCONNECT, api, static_cast<int32_t>(mode)));
    }
    Return<void> query(int32_t what, query_cb reply) override {
        return ask(reply, Request(Operation::QUERY, what), {},
                   [&](Answer& answer) { reply(answer.reply.status, answer.reply.value); });
    }
    Return<int32_t> setMaxDequeuedBufferCount(int32_t count) override {
        return askStatus(Request(Operation::SET_MAX_DEQUEUED_BUFFER_COUNT, count));
    }
    Return<int32_t> setAsyncMode(bool async) override {
        return askStatus(Request(Operation::SET_ASYNC_MODE, async));
    }
    Return<int32_t> setDequeueTimeout(int64_t timeoutNs) override {
        return askStatus(Request(Operation::SET_DEQUEUE_TIMEOUT, timeoutNs));
    }
    Return<void> getConsumerName(getConsumerName_cb reply) override {
        return ask(reply, Request(Operation::GET_CONSUMER_NAME), {}, [&](Answer& answer) {
            reply({answer.reply.name, strnlen(answer.reply.name, sizeof(answer.reply.name))});
        });
    }
    Return<void> getUniqueId(getUniqueId_cb reply) override {
        return ask(reply, Request(Operation::GET_UNIQUE_ID), {},
                   [&](Answer& answer) { reply(answer.reply.status, answer.reply.attributes.id); });
    }

  private:
    using Answer = CallChannel::Answer;
    using Status = android::hardware::Status;

    static Request on(int32_t slot, Operation operation) {
        Request request(operation);
        request.slot = slot >= 0 && slot < kSlotCount ? slot : kNoSlot;
        return request;
    }

    static QueueBufferOutput outputOf(const Reply& reply) {
        return {reply.attributes.width,
                reply.attributes.height,
                reply.transformHint,
                reply.numPendingBuffers,
                reply.nextFrameNumber,
                reply.bufferReplaced != 0,
                {}};
    }

    /** Has the answer delivered to a reply function that is not null. */
    template <typename ReplyFunction, typename Deliver>
    Return<void> ask(const ReplyFunction& reply, const Request& request, const hidl_handle& fence,
                     Deliver deliver) {
        if (reply == nullptr)
            return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "no reply function");
        Answer answer;
        const Status status = mChannel.call(request, fence, &answer);
        if (!status.isOk()) return status;
        deliver(answer);
        return android::hardware::Void();
    }
    Return<int32_t> askStatus(const Request& request, const hidl_handle& fence = {}) {
        Answer answer;
        const Status status = mChannel.call(request, fence, &answer);
        if (!status.isOk()) return status;
        return answer.reply.status;
    }

    CallChannel mChannel;
};

}  // namespace vel::queue_channel
