#include "ProducerStub.h"

#include <android/log.h>
#include <hidl_host/CallingProcess.h>

#include <type_traits>
#include <utility>

#include "DesktopBusNames.h"
#include "ProducerWire.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;
using android::sp;
using android::hardware::hidl_handle;
using android::hardware::Void;
using android::hardware::media::V1_0::AnwBuffer;
using DisconnectMode = IGraphicBufferProducer::DisconnectMode;
using PixelFormat = android::hardware::graphics::common::V1_0::PixelFormat;
using QueueBufferInput = IGraphicBufferProducer::QueueBufferInput;
using QueueBufferOutput = IGraphicBufferProducer::QueueBufferOutput;

namespace {

void disconnectTheDead(const ProducerConnections::Connection& connection) {
    const sp<IGraphicBufferProducer> producer = connection.producer.promote();
    if (producer == nullptr) return;
    const int32_t status = producer->disconnect(connection.api, DisconnectMode::API).withDefault(-1);
    __android_log_print(ANDROID_LOG_INFO, bus::kLogTag,
                        "%s has ended and is disconnected from its buffer queue: %d",
                        connection.busName.c_str(), status);
}

// A dequeue that waits when its caller is disconnected gets one of the slots that this frees.
void returnSlotOfTheDead(IGraphicBufferProducer& producer, int32_t slot, const hidl_handle& fence) {
    if (producer.cancelBuffer(slot, fence).withDefault(-1) == android::OK) return;
    // No one is connected, and slots are only taken back from who is.
    constexpr int32_t kAnyApi = 2;
    int32_t connected = -1;
    (void)producer.connect(nullptr, kAnyApi, false, [&](int32_t status, const auto&) { connected = status; })
        .isOk();
    const auto freed = connected == android::OK ? producer.disconnect(kAnyApi, DisconnectMode::API)
                                                : producer.cancelBuffer(slot, fence);
    (void)freed.isOk();
}

}  // namespace

// Takes the place of the operation's reply function. Copies share the results, which may own descriptors.
class ProducerStub::Reply {
  public:
    template <typename... Results>
    void operator()(const Results&... results) {
        ++mCount;
        const auto kept = std::make_shared<std::tuple<Results...>>(results...);
        mWrite = [kept](sdbus::MethodReply& message) {
            std::apply([&](const auto&... each) { writeAll(message, each...); }, *kept);
        };
    }

    void status(int32_t status) { (*this)(status); }

    int count() const { return mCount; }
    const std::function<void(sdbus::MethodReply&)>& write() const { return mWrite; }

  private:
    int mCount = 0;
    std::function<void(sdbus::MethodReply&)> mWrite;
};

namespace {

using Reply = ProducerStub::Reply;

// An operation that reads arguments of these types and is run with them later.
template <typename... Arguments, typename Run>
auto reading(Run run) {
    return [run](sdbus::MethodCall& message) {
        const auto arguments = std::make_shared<std::tuple<Arguments...>>();
        std::apply([&](auto&... each) { readAll(message, each...); }, *arguments);
        return [run, arguments](const auto& call, Reply& reply) {
            return std::apply([&](const auto&... each) { return run(call, reply, each...); }, *arguments);
        };
    };
}

// An operation whose only result is a status.
template <typename... Arguments>
auto statusOf(android::hardware::Return<int32_t> (IGraphicBufferProducer::*operation)(Arguments...)) {
    return reading<std::decay_t<Arguments>...>(
        [operation](const auto& call, Reply& reply,
                    const auto&... arguments) -> android::hardware::Return<void> {
            const auto status = ((*call.producer).*operation)(arguments...);
            if (!status.isOk()) return failureOf(status);
            reply.status(status);
            return Void();
        });
}

}  // namespace

std::vector<ProducerStub::Method> ProducerStub::methods() {
    using P = IGraphicBufferProducer;
    const std::string buffer = "ahuuuiuutt", input = "xiiiiiiiuuah", output = "uuuutb";
    return {
        {bus::kRequestBuffer, "i", "i" + buffer,
         reading<int32_t>([](const Call& call, Reply& reply, int32_t slot) {
             return call.producer->requestBuffer(slot, std::ref(reply));
         })},
        {bus::kSetMaxDequeuedBufferCount, "i", "i", statusOf(&P::setMaxDequeuedBufferCount)},
        {bus::kSetAsyncMode, "b", "i", statusOf(&P::setAsyncMode)},
        {bus::kDequeueBuffer, "uuiu", "iiah",
         reading<uint32_t, uint32_t, int32_t, uint32_t>(
             [this](const auto& call, Reply& reply, uint32_t width, uint32_t height, int32_t format,
                    uint32_t usage) { return dequeueBuffer(call, reply, width, height, format, usage); })},
        {bus::kQueueBuffer, "i" + input, "i" + output,
         reading<int32_t, QueueBufferInput>(
             [](const Call& call, Reply& reply, int32_t slot, const QueueBufferInput& input) {
                 return call.producer->queueBuffer(slot, input, std::ref(reply));
             })},
        {bus::kCancelBuffer, "iah", "i", statusOf(&P::cancelBuffer)},
        {bus::kQuery, "i", "ii", reading<int32_t>([](const Call& call, Reply& reply, int32_t what) {
             return call.producer->query(what, std::ref(reply));
         })},
        {bus::kConnect, "ib", "i" + output,
         reading<int32_t, bool>([this](const auto& call, Reply& reply, int32_t api, bool byApp) {
             return connect(call, reply, api, byApp);
         })},
        {bus::kDisconnect, "ii", "i",
         reading<int32_t, int32_t>([this](const auto& call, Reply& reply, int32_t api, int32_t mode) {
             return disconnect(call, reply, api, mode);
         })},
        {bus::kAllowAllocation, "b", "i", statusOf(&P::allowAllocation)},
        {bus::kSetGenerationNumber, "u", "i", statusOf(&P::setGenerationNumber)},
        {bus::kGetConsumerName, "", "s", reading<>([](const Call& call, Reply& reply) {
             return call.producer->getConsumerName([&](const android::hardware::hidl_string& name) {
                 reply(std::string(name.c_str(), name.size()));
             });
         })},
        {bus::kSetDequeueTimeout, "x", "i", statusOf(&P::setDequeueTimeout)},
        {bus::kGetUniqueId, "", "it", reading<>([](const Call& call, Reply& reply) {
             return call.producer->getUniqueId(std::ref(reply));
         })},
    };
}

ProducerStub::ProducerStub(BusLoop& loop, WorkerPool& workers, const ObjectExporter& exporter)
    : mLoop(loop), mWorkers(workers), mExporter(exporter), mMethods(methods()) {}

void ProducerStub::addMethods(sdbus::IObject& object, BusSession& session, const std::string& path) {
    for (const Method& method : mMethods) {
        object.registerMethod(bus::kProducerInterface, method.name, method.arguments, method.results,
                              [this, &session, path, &method](sdbus::MethodCall message) {
                                  onCall(session, path, method, message);
                              });
    }
}

void ProducerStub::onCall(BusSession& session, const std::string& path, const Method& method,
                          sdbus::MethodCall& message) {
    const auto object = mExporter.find(session.id(), ObjectExporter::Kind::PRODUCER, path);
    if (object == nullptr) throw sdbus::Error(bus::kErrorUnknownObject, path + " is no longer there");
    Call call{session.id(), message.getSender(), path, static_cast<IGraphicBufferProducer*>(object.get())};
    Work work = method.read(message);
    mWorkers.post([this, call = std::move(call), work = std::move(work), ticket = session.park(message)] {
        carryOut(call, work, ticket);
    });
}

// As the platform does for its own services: a producer of this process that breaks the rules about its reply
// function, or fails to answer, ends its process. One that is itself a proxy may fail.
void ProducerStub::carryOut(const Call& call, const Work& work, BusSession::Ticket ticket) {
    Reply reply;
    const char* error = nullptr;
    if (!isCallerAlive(call)) {
        error = bus::kErrorUnknownObject;  // its slots may be another's by now
    } else {
        const host::CallingProcess caller(std::to_string(call.session) + " " + call.busName);
        const Return outcome = work(call, reply);
        if (outcome.isDeadObject() && call.producer->isRemote()) {
            error = bus::kErrorUnknownObject;
        } else if (!outcome.isOk() && call.producer->isRemote()) {
            error = bus::kErrorFailed;
        } else {
            outcome.assertOk();
            if (reply.count() != 1)
                __android_log_assert("replies == 1", bus::kLogTag, "A producer replied %d times",
                                     reply.count());
        }
        if (!isCallerAlive(call)) endConnectionOfTheDead(call);
    }
    mLoop.post(call.session, [error, ticket, reply](BusSession& current) {
        if (error != nullptr) {
            current.refuse(ticket, error, "the buffer queue cannot be reached");
            return;
        }
        current.answer(ticket, reply.write());
    });
}

ProducerStub::Return ProducerStub::dequeueBuffer(const Call& call, Reply& reply, uint32_t width,
                                                 uint32_t height, int32_t format, uint32_t usage) const {
    return call.producer->dequeueBuffer(
        width, height, static_cast<PixelFormat>(format), usage, false,
        [&](int32_t status, int32_t slot, const hidl_handle& fence, const auto&) {
            reply(status, slot, fence);
            if (status >= 0 && !isCallerAlive(call)) returnSlotOfTheDead(*call.producer, slot, fence);
        });
}

ProducerStub::Return ProducerStub::connect(const Call& call, Reply& reply, int32_t api,
                                           bool producerControlledByApp) {
    return call.producer->connect(
        nullptr, api, producerControlledByApp, [&](int32_t status, const QueueBufferOutput& output) {
            if (status == android::OK)
                mConnections.put(call.path, {call.session, call.busName, call.producer, api});
            reply(status, output);
        });
}

ProducerStub::Return ProducerStub::disconnect(const Call& call, Reply& reply, int32_t api, int32_t mode) {
    const uint64_t known = mConnections.numberAt(call.path);
    const auto status = call.producer->disconnect(api, static_cast<DisconnectMode>(mode));
    if (!status.isOk()) return failureOf(status);
    // The queue may have its next connection by now.
    if (status == android::OK) mConnections.forget(call.path, known);
    reply.status(status);
    return Void();
}

bool ProducerStub::isCallerAlive(const Call& call) const {
    return mExporter.isHeldBy(call.session, call.busName, call.path);
}

// The caller may have died before its connection was known here.
void ProducerStub::endConnectionOfTheDead(const Call& call) {
    for (const auto& connection : mConnections.takeAllOf(call.session, call.busName))
        disconnectTheDead(connection);
}

void ProducerStub::onPeerDied(SessionId session, const std::string& busName) {
    endLater(mConnections.takeAllOf(session, busName));
}

void ProducerStub::onSessionEnded(SessionId session) {
    endLater(mConnections.takeAll(session));
}

// On workers: the consumer's listener is told, and may do anything.
void ProducerStub::endLater(std::vector<ProducerConnections::Connection> connections) {
    for (auto& connection : connections)
        mWorkers.post([connection = std::move(connection)] { disconnectTheDead(connection); });
}

}  // namespace vel::dbus_transport
