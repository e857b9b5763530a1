#include "DesktopService.h"

#include <korvanta/hardware/camera/desktop/2.0/types.h>
#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>

#include "DesktopBusNames.h"
#include "Program.h"
#include "Timeline.h"
#include "Trace.h"
#include "WireTypes.h"

namespace bus = vel::desktop_bus;
using bus::InterfaceObject;
using korvanta::hardware::camera::desktop::V2_0::ClientType;

namespace {

constexpr auto kTypeHal = static_cast<uint8_t>(ClientType::CLIENT_CAMERA_HAL);

std::string typeName(uint8_t type) {
    switch (static_cast<ClientType>(type)) {
        case ClientType::CLIENT_APP:
            return "APP";
        case ClientType::CLIENT_CAMERA_SERVICE:
            return "CAMERA_SERVICE";
        case ClientType::CLIENT_CAMERA_HAL:
            return "HAL";
        case ClientType::CLIENT_IMG_SUB:
            return "IMG_SUB";
    }
    return "TYPE_" + std::to_string(type);  // a peer may send any byte
}

// Goes behind a type in the trace.
std::string description(const InterfaceObject& object) {
    return object.isNull() ? "" : " " + object.busName + " " + object.path;
}

// The text that comes next; the message goes back to its beginning.
std::string peekText(sdbus::Message& message) {
    const auto text = bus::WireText::read(message).decode();
    message.rewind(true);
    return text ? *text : "(unreadable text)";
}

uint8_t readType(sdbus::MethodCall& call) {
    uint8_t type = 0;
    call >> type;
    return type;
}

// Runs a method; whatever it throws becomes the caller's error reply. Anything but an sdbus::Error would
// otherwise end the process.
template <typename Method>
sdbus::method_callback guarded(Method method) {
    return [method](sdbus::MethodCall call) {
        try {
            method(call);
        } catch (const sdbus::Error&) {
            throw;
        } catch (const std::exception& exception) {
            throw sdbus::Error(bus::kErrorFailed, exception.what());
        }
    };
}

}  // namespace

DesktopService::DesktopService(sdbus::IConnection& connection, const Trace& trace)
    : mConnection(connection), mTrace(trace), mCalls(connection) {}

DesktopService::~DesktopService() = default;

void DesktopService::publish() {
    mConnection.setMethodCallTimeout(UINT64_MAX);  // a peer may take its time; its death is told
    bus::watchPeerDeaths(mConnection, [this](const std::string& busName) { onPeerDied(busName); });
    mObject = sdbus::createObject(mConnection, bus::kServicePath);
    const auto add = [this](const char* name, const char* in, const std::vector<std::string>& inNames,
                            const char* out, const std::vector<std::string>& outNames,
                            void (DesktopService::*method)(sdbus::MethodCall&)) {
        mObject->registerMethod(bus::kServiceInterface, name, in, inNames, out, outNames,
                                guarded([this, method](sdbus::MethodCall& call) { (this->*method)(call); }));
    };
    add(bus::kRegisterCallback, "y(so)", {"type", "callback"}, "", {}, &DesktopService::registerCallback);
    add(bus::kSendCommand, "yv", {"type", "command"}, "v", {"reply"}, &DesktopService::sendCommand);
    add(bus::kSetSurface, "y(so)", {"type", "producer"}, "", {}, &DesktopService::setSurface);
    add(bus::kGetSurface, "y", {"type"}, "(so)", {"producer"}, &DesktopService::getSurface);
    mObject->registerProperty(vel::sim::kTimelineInterface, vel::sim::kOriginProperty, "x",
                              [](sdbus::PropertyGetReply& reply) { reply << vel::sim::timeOriginNs(); });
    mObject->finishRegistration();
    mConnection.requestName(bus::kServiceName);
    mTrace.ready(bus::kServiceName);
}

void DesktopService::registerCallback(sdbus::MethodCall& call) {
    const uint8_t type = readType(call);
    const InterfaceObject callback = InterfaceObject::read(call);
    replace(mCallbacks, type, callback);
    mTrace.event(typeName(type) + (callback.isNull() ? " unregistered" : " registered") +
                 description(callback));
    call.createReply().send();
}

void DesktopService::sendCommand(sdbus::MethodCall& call) {
    const uint8_t type = readType(call);
    if (mTrace.enabled()) {
        mTrace.message(nameOf(call.getSender()), typeName(type), peekText(call));
        (void)readType(call);  // peeking has gone back to the beginning
    }
    const auto callback = mCallbacks.find(type);
    if (callback == mCallbacks.end()) {
        refuse(call, type,
               sdbus::Error(bus::kErrorNoPeer, typeName(type) + " has not registered a callback"));
        return;
    }
    mCalls.begin(
        callback->second, bus::kCallbackInterface, bus::kOnCommand,
        [&call](sdbus::MethodCall& onCommand) { call.copyTo(onCommand, false); },
        [this, call, type](sdbus::MethodReply* reply, const sdbus::Error* error) {
            answerCommand(call, type, reply, error);
        });
}

void DesktopService::answerCommand(const sdbus::MethodCall& command, uint8_t type, sdbus::MethodReply* reply,
                                   const sdbus::Error* error) try {
    if (error != nullptr) {
        // Under a name of this service: a bus error would read as the death of the service itself.
        const bool registered = mCallbacks.count(type) != 0;
        refuse(command, type,
               sdbus::Error(registered ? bus::kErrorPeerFailed : bus::kErrorNoPeer,
                            typeName(type) + (registered ? " failed: " : " went before it replied: ") +
                                error->getName() + ": " + error->getMessage()));
        return;
    }
    if (mTrace.enabled()) mTrace.reply(typeName(type), nameOf(command.getSender()), peekText(*reply));
    sdbus::MethodReply answer = command.createReply();
    reply->copyTo(answer, false);
    answer.send();
} catch (const std::exception& exception) {
    refuse(command, type, sdbus::Error(bus::kErrorPeerFailed, typeName(type) + ": " + exception.what()));
}

void DesktopService::setSurface(sdbus::MethodCall& call) {
    const uint8_t type = readType(call);
    const InterfaceObject producer = InterfaceObject::read(call);
    replace(mSurfaces, type, producer);
    mTrace.event(nameOf(call.getSender()) + (producer.isNull() ? " surface-cleared " : " surface-set ") +
                 typeName(type) + description(producer));
    call.createReply().send();
}

void DesktopService::getSurface(sdbus::MethodCall& call) {
    const auto surface = mSurfaces.find(readType(call));
    sdbus::MethodReply reply = call.createReply();
    (surface == mSurfaces.end() ? InterfaceObject() : surface->second).write(reply);
    reply.send();
}

void DesktopService::onPeerDied(const std::string& busName) {
    const std::string who = nameOf(busName);
    const auto drop = [&](ObjectsByType& objects, const char* what) {
        for (auto entry = objects.begin(); entry != objects.end();) {
            if (entry->second.busName != busName) {
                ++entry;
                continue;
            }
            mTrace.event(who + " died " + what + " " + typeName(entry->first) + " dropped");
            entry = objects.erase(entry);
        }
    };
    drop(mSurfaces, "surface");
    drop(mCallbacks, "callback");
    mCalls.failCallsTo(busName);
}

void DesktopService::replace(ObjectsByType& objects, uint8_t type, const InterfaceObject& object) {
    const InterfaceObject before = objects[type];
    if (object.isNull()) {
        objects.erase(type);
    } else {
        objects[type] = object;
    }
    if (!before.isNull()) mCalls.sendOneWay(before, bus::kReferenceInterface, bus::kRelease);
}

void DesktopService::refuse(const sdbus::MethodCall& call, uint8_t type, const sdbus::Error& error) try {
    mTrace.error(typeName(type), nameOf(call.getSender()), error.getName() + ": " + error.getMessage());
    call.createErrorReply(error).send();
} catch (const std::exception& exception) {
    mTrace.event(std::string("SERVICE unanswered ") + exception.what());
}

// A process may register under several types; whatever a process with the HAL in it sends is the HAL's.
std::string DesktopService::nameOf(const std::string& busName) const {
    const auto hal = mCallbacks.find(kTypeHal);
    if (hal != mCallbacks.end() && hal->second.busName == busName) return typeName(kTypeHal);
    const auto peer = std::find_if(mCallbacks.begin(), mCallbacks.end(),
                                   [&](const auto& entry) { return entry.second.busName == busName; });
    return peer != mCallbacks.end() ? typeName(peer->first) : busName;
}
