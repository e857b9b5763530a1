#include "DesktopService.h"

#include <korvanta/hardware/camera/desktop/2.0/types.h>
#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <map>

#include "DesktopBusNames.h"
#include "Program.h"
#include "Timeline.h"
#include "Trace.h"
#include "WireTypes.h"

namespace bus = vel::desktop_bus;
using bus::InterfaceObject;
using korvanta::hardware::camera::desktop::V2_0::ClientType;

namespace {

// Of one sender's commands: each holds a thread of its receiver.
constexpr size_t kMaxUnderWay = 32;

constexpr auto kTypeHal = static_cast<uint8_t>(ClientType::CLIENT_CAMERA_HAL);

const std::map<uint8_t, std::string> kTypeNames = {
    {static_cast<uint8_t>(ClientType::CLIENT_APP), "APP"},
    {static_cast<uint8_t>(ClientType::CLIENT_CAMERA_SERVICE), "CAMERA_SERVICE"},
    {kTypeHal, "HAL"},
    {static_cast<uint8_t>(ClientType::CLIENT_IMG_SUB), "IMG_SUB"},
};

const std::string& typeName(uint8_t type) {
    return kTypeNames.at(type);
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
    if (kTypeNames.count(type) == 0)
        throw sdbus::Error(bus::kErrorInvalidArgs, "there is no client type " + std::to_string(type));
    return type;
}

// An object of the caller's own, or null.
InterfaceObject readOwnObject(sdbus::MethodCall& call) {
    InterfaceObject object = InterfaceObject::read(call);
    if (!object.isNull() && object.busName != call.getSender()) {
        throw sdbus::Error(bus::kErrorInvalidArgs,
                           "\"" + object.busName + "\" is not the caller's name, " + call.getSender());
    }
    return object;
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
    const InterfaceObject callback = readOwnObject(call);
    const InterfaceObject newest = newestOf(type);
    const InterfaceObject own = removeRegistration(type, call.getSender());
    if (!own.isNull()) mCalls.sendOneWay(own, bus::kReferenceInterface, bus::kRelease);
    if (!callback.isNull()) {
        mTrace.event(typeName(type) + " registered" + description(callback));
        const InterfaceObject other = newestOf(type);
        if (!other.isNull()) mTrace.event(typeName(type) + " replaced" + description(other));
        mCallbacks[type].push_back(callback);
    } else if (!own.isNull()) {
        mTrace.event(typeName(type) + " unregistered");
        traceRestored(type, newest);
    }
    call.createReply().send();
}

void DesktopService::sendCommand(sdbus::MethodCall& call) {
    const uint8_t type = readType(call);
    TracedCommand traced;
    if (mTrace.wantsCommands()) {
        traced = mTrace.command(nameOf(call.getSender()), typeName(type), peekText(call));
        (void)readType(call);  // peeking has gone back to the beginning
    }
    const std::string sender = call.getSender();
    if (const auto count = mUnderWay.find(sender);
        count != mUnderWay.end() && count->second == kMaxUnderWay) {
        refuse(call, traced,
               sdbus::Error(bus::kErrorLimitsExceeded, "too many commands wait for their answers"));
        return;
    }
    const InterfaceObject receiver = newestOf(type);
    if (receiver.isNull()) {
        refuse(call, traced,
               sdbus::Error(bus::kErrorNoPeer, typeName(type) + " has not registered a callback"));
        return;
    }
    ++mUnderWay[sender];
    mCalls.begin(
        receiver, bus::kCallbackInterface, bus::kOnCommand,
        [&call](sdbus::MethodCall& onCommand) { call.copyTo(onCommand, false); },
        [this, call, type, traced, receiver](sdbus::MethodReply* reply, const sdbus::Error* error) {
            const auto count = mUnderWay.find(call.getSender());
            if (--count->second == 0) mUnderWay.erase(count);
            answerCommand(call, type, traced, receiver, reply, error);
        });
}

void DesktopService::answerCommand(const sdbus::MethodCall& command, uint8_t type,
                                   const TracedCommand& traced, const InterfaceObject& receiver,
                                   sdbus::MethodReply* reply, const sdbus::Error* error) try {
    if (error != nullptr) {
        // Under a name of this service: a bus error would read as the death of the service itself.
        const bool registered = isRegistered(type, receiver.busName);
        refuse(command, traced,
               sdbus::Error(registered ? bus::kErrorPeerFailed : bus::kErrorNoPeer,
                            typeName(type) + (registered ? " failed: " : " went before it replied: ") +
                                error->getName() + ": " + error->getMessage()));
        return;
    }
    if (mTrace.wantsCommands()) mTrace.reply(traced, peekText(*reply));
    sdbus::MethodReply answer = command.createReply();
    reply->copyTo(answer, false);
    answer.send();
} catch (const std::exception& exception) {
    refuse(command, traced, sdbus::Error(bus::kErrorPeerFailed, typeName(type) + ": " + exception.what()));
}

void DesktopService::setSurface(sdbus::MethodCall& call) {
    const uint8_t type = readType(call);
    const InterfaceObject producer = readOwnObject(call);
    const auto before = mSurfaces.find(type);
    if (before != mSurfaces.end()) {
        if (before->second.busName != call.getSender() && !isPeer(call.getSender())) {
            throw sdbus::Error(bus::kErrorAccessDenied,
                               "the surface is another process's, and the caller has not registered");
        }
        mCalls.sendOneWay(before->second, bus::kReferenceInterface, bus::kRelease);
        mSurfaces.erase(before);
    }
    if (!producer.isNull()) mSurfaces[type] = producer;
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
    for (auto entry = mSurfaces.begin(); entry != mSurfaces.end();) {
        if (entry->second.busName != busName) {
            ++entry;
            continue;
        }
        mTrace.event(who + " died surface " + typeName(entry->first) + " dropped");
        entry = mSurfaces.erase(entry);
    }
    for (const auto& [type, name] : kTypeNames) {
        if (!isRegistered(type, busName)) continue;
        const InterfaceObject newest = newestOf(type);
        (void)removeRegistration(type, busName);
        mTrace.event(std::string(who).append(" died callback ").append(name).append(" dropped"));
        traceRestored(type, newest);
    }
    mCalls.failCallsTo(busName);
}

InterfaceObject DesktopService::removeRegistration(uint8_t type, const std::string& busName) {
    const auto entry = mCallbacks.find(type);
    if (entry == mCallbacks.end()) return {};
    Registrations& registrations = entry->second;
    const auto own = std::find_if(registrations.begin(), registrations.end(),
                                  [&](const auto& object) { return object.busName == busName; });
    if (own == registrations.end()) return {};
    InterfaceObject removed = *own;
    registrations.erase(own);
    if (registrations.empty()) mCallbacks.erase(entry);
    return removed;
}

InterfaceObject DesktopService::newestOf(uint8_t type) const {
    const auto entry = mCallbacks.find(type);
    return entry != mCallbacks.end() ? entry->second.back() : InterfaceObject();
}

void DesktopService::traceRestored(uint8_t type, const InterfaceObject& newestBefore) const {
    const InterfaceObject newest = newestOf(type);
    if (!newest.isNull() && !(newest == newestBefore))
        mTrace.event(typeName(type) + " restored" + description(newest));
}

void DesktopService::refuse(const sdbus::MethodCall& call, const TracedCommand& traced,
                            const sdbus::Error& error) try {
    mTrace.error(traced, error.getName() + ": " + error.getMessage());
    call.createErrorReply(error).send();
} catch (const std::exception& exception) {
    mTrace.event(std::string("SERVICE unanswered ") + exception.what());
}

bool DesktopService::isRegistered(uint8_t type, const std::string& busName) const {
    const auto entry = mCallbacks.find(type);
    return entry != mCallbacks.end() &&
           std::any_of(entry->second.begin(), entry->second.end(),
                       [&](const auto& object) { return object.busName == busName; });
}

bool DesktopService::isPeer(const std::string& busName) const {
    return std::any_of(kTypeNames.begin(), kTypeNames.end(),
                       [&](const auto& entry) { return isRegistered(entry.first, busName); });
}

// A process may register under several types; whatever a process with the HAL in it sends is the HAL's.
std::string DesktopService::nameOf(const std::string& busName) const {
    if (isRegistered(kTypeHal, busName)) return typeName(kTypeHal);
    const auto peer = std::find_if(kTypeNames.begin(), kTypeNames.end(),
                                   [&](const auto& entry) { return isRegistered(entry.first, busName); });
    return peer != kTypeNames.end() ? peer->second : busName;
}
