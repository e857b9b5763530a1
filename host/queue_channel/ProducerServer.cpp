#include "ProducerServer.h"

#include <android/log.h>
#include <hidl_host/CallingProcess.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

namespace vel::queue_channel {

using android::DEAD_OBJECT;
using android::FAILED_TRANSACTION;
using android::OK;
using android::base::unique_fd;
using android::hardware::hidl_handle;
using DisconnectMode = IGraphicBufferProducer::DisconnectMode;

namespace {

constexpr int kMaxReaders = 4;

// A dequeue that waits when its client is disconnected may get one of the slots that this frees.
void returnSlot(IGraphicBufferProducer& producer, int32_t slot, const hidl_handle& fence) {
    if (producer.cancelBuffer(slot, fence).withDefault(DEAD_OBJECT) != android::NO_INIT) return;
    // No one is connected, and slots are only taken back from who is.
    constexpr int32_t kAnyApi = 2;
    int32_t connected = DEAD_OBJECT;
    const auto connect =
        producer.connect(nullptr, kAnyApi, false, [&](int32_t status, const auto&) { connected = status; });
    if (connect.isOk() && connected == OK) {
        (void)producer.disconnect(kAnyApi, DisconnectMode::API).isOk();
    } else {
        (void)producer.cancelBuffer(slot, fence).isOk();
    }
}

int32_t transportError(const android::hardware::details::return_status& failed) {
    return failed.isDeadObject() ? DEAD_OBJECT : FAILED_TRANSACTION;
}

}  // namespace

void Client::disconnectFrom(IGraphicBufferProducer& producer) const {
    constexpr int32_t kConnectedApi = -1;
    const host::CallingProcess caller(name);
    (void)producer.disconnect(kConnectedApi, DisconnectMode::ALL_LOCAL).isOk();
}

struct ProducerServer::Answer {
    Reply reply;
    int count = 0;
};

unique_fd ProducerServer::open(const android::sp<IGraphicBufferProducer>& producer,
                               const std::shared_ptr<Client>& client) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return {};
    unique_fd clientsEnd(ends[0]);
    const auto server = std::make_shared<ProducerServer>(producer, client, unique_fd(ends[1]));
    std::lock_guard<std::mutex> lock(server->mLock);
    return server->addThreadLocked() ? std::move(clientsEnd) : unique_fd();
}

bool ProducerServer::addThreadLocked() {
    if (mThreads == kMaxThreads) return false;
    try {
        std::thread([self = shared_from_this()] { self->serve(); }).detach();
        ++mThreads;
        return ++mReaders > 0;
    } catch (const std::system_error& error) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "No thread for a channel: %s", error.what());
        return false;
    }
}

void ProducerServer::serve() {
    const host::CallingProcess caller(mClient->name);
    do {
        Request request;
        hidl_handle fence;
        const Received received = receive(mSocket, &request, &fence);
        if (received == Received::END) return end(nullptr);
        if (received == Received::NO_DESCRIPTOR) return end("there is no descriptor for a fence");
        if (received == Received::MALFORMED) return end("a packet makes no sense");
        const bool mayWait = leaveReader();
        carryOut(request, fence, mayWait);
    } while (mayStay());
}

// False when no other thread waits for requests.
bool ProducerServer::leaveReader() {
    std::lock_guard<std::mutex> lock(mLock);
    return --mReaders > 0 || addThreadLocked();
}

void ProducerServer::becomeReader() {
    std::lock_guard<std::mutex> lock(mLock);
    ++mReaders;
}

bool ProducerServer::mayStay() {
    std::lock_guard<std::mutex> lock(mLock);
    if (mReaders <= kMaxReaders) return true;
    --mReaders;
    --mThreads;
    return false;
}

// As the platform does for its own services: a producer of this process that breaks the rules about its reply
// function, or fails to answer, ends its process. One that is itself a proxy may fail.
void ProducerServer::carryOut(const Request& request, const hidl_handle& fence, bool mayWait) {
    if (!mClient->isAlive) return end(nullptr);  // its slots may be another's by now
    Answer answer;
    answer.reply.operation = request.operation;
    answer.reply.number = request.number;
    if (!mayWait && request.operation == Operation::DEQUEUE_BUFFER) {
        (void)respond(answer, android::WOULD_BLOCK);
        return;
    }
    const Return outcome = call(request, fence, answer);
    if (!outcome.isOk() && mProducer->isRemote()) {
        answer.reply.failure = transportError(outcome);
        (void)respond(answer, OK);
        return;
    }
    outcome.assertOk();
    if (answer.count != 1)
        __android_log_assert("replies == 1", kLogTag, "A producer replied %d times", answer.count);
}

ProducerServer::Return ProducerServer::call(const Request& request, const hidl_handle& fence,
                                            Answer& answer) {
    const auto value = static_cast<int32_t>(request.value);
    switch (request.operation) {
        case Operation::REQUEST_BUFFER:
            return requestBuffer(request, answer);
        case Operation::DEQUEUE_BUFFER:
            return dequeueBuffer(request, answer);
        case Operation::QUEUE_BUFFER:
            return queueBuffer(request, fence, answer);
        case Operation::CANCEL_BUFFER:
            return tell(mProducer->cancelBuffer(request.slot, fence), answer);
        case Operation::CONNECT:
            return connect(request, answer);
        case Operation::DISCONNECT:
            return tell(mProducer->disconnect(value, static_cast<DisconnectMode>(request.option)), answer);
        case Operation::SET_MAX_DEQUEUED_BUFFER_COUNT:
            return tell(mProducer->setMaxDequeuedBufferCount(value), answer);
        case Operation::SET_ASYNC_MODE:
            return tell(mProducer->setAsyncMode(value != 0), answer);
        case Operation::SET_DEQUEUE_TIMEOUT:
            return tell(mProducer->setDequeueTimeout(request.value), answer);
        default:
            return ask(request, answer);
    }
}

ProducerServer::Return ProducerServer::requestBuffer(const Request& request, Answer& answer) {
    return mProducer->requestBuffer(request.slot, [&](int32_t status, const auto& buffer) {
        answer.reply.attributes = buffer.attr;
        (void)respond(answer, status, buffer.nativeHandle);
    });
}

ProducerServer::Return ProducerServer::dequeueBuffer(const Request& request, Answer& answer) {
    const auto lend = [&](int32_t status, int32_t slot, const hidl_handle& fence, const auto&) {
        answer.reply.slot = slot;
        if (!respond(answer, status, fence) && status >= 0) returnSlot(*mProducer, slot, fence);
    };
    return mProducer->dequeueBuffer(request.width, request.height, request.format, request.usage, false,
                                    lend);
}

ProducerServer::Return ProducerServer::queueBuffer(const Request& request, const hidl_handle& fence,
                                                   Answer& answer) {
    const IGraphicBufferProducer::QueueBufferInput input{request.value,
                                                         request.option,
                                                         request.dataSpace,
                                                         request.crop,
                                                         request.scalingMode,
                                                         request.transform,
                                                         request.stickyTransform,
                                                         fence,
                                                         {},
                                                         false};
    return mProducer->queueBuffer(request.slot, input, [&](int32_t status, const QueueBufferOutput& output) {
        tellOutput(status, output, answer);
    });
}

ProducerServer::Return ProducerServer::connect(const Request& request, Answer& answer) {
    const auto api = static_cast<int32_t>(request.value);
    return mProducer->connect(nullptr, api, request.option != 0,
                              [&](int32_t status, const QueueBufferOutput& output) {
                                  mClient->hasConnected = true;
                                  if (!mClient->isAlive) mClient->disconnectFrom(*mProducer);
                                  tellOutput(status, output, answer);
                              });
}

// What only asks.
ProducerServer::Return ProducerServer::ask(const Request& request, Answer& answer) {
    Reply& reply = answer.reply;
    if (request.operation == Operation::QUERY) {
        const auto what = static_cast<int32_t>(request.value);
        return mProducer->query(what, [&](int32_t status, int32_t value) {
            reply.value = value;
            (void)respond(answer, status);
        });
    }
    if (request.operation == Operation::GET_CONSUMER_NAME) {
        return mProducer->getConsumerName([&](const auto& name) {
            std::memcpy(reply.name, name.c_str(), std::min(name.size(), sizeof(reply.name) - 1));
            (void)respond(answer, OK);
        });
    }
    return mProducer->getUniqueId([&](int32_t status, uint64_t id) {
        reply.attributes.id = id;
        (void)respond(answer, status);
    });
}

void ProducerServer::tellOutput(int32_t status, const QueueBufferOutput& output, Answer& answer) {
    Reply& reply = answer.reply;
    reply.attributes.width = output.width;
    reply.attributes.height = output.height;
    reply.nextFrameNumber = output.nextFrameNumber;
    reply.transformHint = output.transformHint;
    reply.numPendingBuffers = output.numPendingBuffers;
    reply.bufferReplaced = output.bufferReplaced;
    (void)respond(answer, status);
}

ProducerServer::Return ProducerServer::tell(android::hardware::Return<int32_t> status, Answer& answer) {
    if (!status.isOk()) return android::hardware::Status::fromStatusT(transportError(status));
    (void)respond(answer, status);
    return android::hardware::Void();
}

// False when the client does not get the reply, and the channel has ended. It has room for its replies unless
// it leaves them unread.
bool ProducerServer::respond(Answer& answer, int32_t status, const hidl_handle& handle) {
    ++answer.count;
    answer.reply.status = status;
    becomeReader();  // before the caller can be quicker than this thread
    int error = EPIPE;
    if (mClient->isAlive) error = send(mSocket, &answer.reply, sizeof(answer.reply), handle, MSG_DONTWAIT);
    if (error != 0)
        end(error == EPIPE ? nullptr : error == EAGAIN ? "its replies are left unread" : strerror(error));
    return error == 0;
}

void ProducerServer::end(const char* reason) {
    std::lock_guard<std::mutex> lock(mLock);
    if (reason != nullptr && !mHasEnded)
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "The channel of %s is closed: %s",
                            mClient->name.c_str(), reason);
    mHasEnded = true;
    (void)shutdown(mSocket.get(), SHUT_RDWR);
}

}  // namespace vel::queue_channel
