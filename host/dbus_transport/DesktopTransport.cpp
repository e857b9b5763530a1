#include "DesktopTransport.h"

#include <android/log.h>
#include <korvanta/hardware/camera/desktop/1.0/ICameraDesktopCallback.h>
#include <sdbus-c++/sdbus-c++.h>

#include "DesktopBusNames.h"
#include "WireTypes.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;
using android::sp;
using bus::InterfaceObject;
using bus::WireText;
using korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback;

namespace {

// A local bus answers at once or not at all; a HAL's thread is not to find out which.
constexpr std::chrono::seconds kBusLimit{3};

// The answer to an incoming command: a text, or an error.
struct CommandAnswer {
    WireText text;
    const char* errorName = nullptr;
    std::string errorText;
};

// Runs the command as the platform does for its own services: an implementation that breaks the rules about
// its reply function ends its process.
CommandAnswer runCommand(const sp<ICameraDesktopCallback>& callback, const WireText& command) {
    const auto text = command.decode();
    if (!text) return {{}, bus::kErrorInvalidArgs, "the command is not acceptable"};
    int replies = 0;
    std::optional<WireText> reply;
    const auto status = callback->onCommand(*text, [&](const android::hardware::hidl_string& replyText) {
        ++replies;
        reply = WireText::encode(replyText.c_str(), replyText.size());
    });
    status.assertOk();
    if (replies != 1) {
        __android_log_assert("replies == 1", bus::kLogTag, "onCommand called its reply function %d times",
                             replies);
    }
    if (!reply) return {{}, bus::kErrorFailed, "the reply is too long"};
    return {*reply, nullptr, {}};
}

}  // namespace

DesktopTransport& DesktopTransport::instance() {
    static DesktopTransport& transport = *new DesktopTransport;
    return transport;
}

OpenSession DesktopTransport::open(const std::string& address) {
    return mWorkers.start() ? mLoop.open(address, kBusLimit) : OpenSession();
}

CallStatus DesktopTransport::getNameOwner(SessionId session, const std::string& name, std::string* owner) {
    const RemoteObject daemon{session, {"org.freedesktop.DBus", "/org/freedesktop/DBus"}};
    const auto answer = std::make_shared<std::string>();
    CallStatus status = mLoop.callWithin(
        kBusLimit, daemon, "org.freedesktop.DBus", "GetNameOwner",
        [name](sdbus::MethodCall& message) { message << name; },
        [answer](sdbus::MethodReply& reply) { reply >> *answer; });
    if (status.kind == CallStatus::OK) *owner = *answer;
    return status;
}

InterfaceObject DesktopTransport::lend(const RemoteObject& peer, const OpenSession& session, Kind kind,
                                       const sp<IBase>& object) {
    if (object == nullptr) return {};
    return {session.ownName,
            mExporter.hold(session.id, peer.object.busName, kind, object,
                           [&](const std::string& path) { publish(session.id, kind, path); })};
}

void DesktopTransport::takeBack(const RemoteObject& peer, const InterfaceObject& reference) {
    discard(peer.session, mExporter.release(peer.session, peer.object.busName, reference.path));
}

void DesktopTransport::acquire(const RemoteObject& object) {
    const CallStatus status = mLoop.call(
        object, bus::kReferenceInterface, bus::kAcquire, [](sdbus::MethodCall&) {},
        [](sdbus::MethodReply&) {});
    if (status.kind == CallStatus::OK) return;
    __android_log_print(ANDROID_LOG_WARN, bus::kLogTag, "%s of %s is gone: %s", object.object.path.c_str(),
                        object.object.busName.c_str(), status.text.c_str());
}

void DesktopTransport::giveBack(const RemoteObject& object) {
    mLoop.post(object.session, [reference = object.object](BusSession& current) {
        current.calls().sendOneWay(reference, bus::kReferenceInterface, bus::kRelease);
    });
}

void DesktopTransport::watch(const RemoteObject& peer, DeathWatch::Watcher watcher) {
    const std::string& busName = peer.object.busName;
    mDeathWatch.add(peer.session, busName, std::move(watcher));
    // The peer may have died before; then the bus tells nothing any more.
    std::string owner;
    if (getNameOwner(peer.session, busName, &owner).kind == CallStatus::DEAD)
        notifyLater(mDeathWatch.take(peer.session, busName));
}

void DesktopTransport::onPeerDied(SessionId session, const std::string& busName) {
    notifyLater(mDeathWatch.take(session, busName));
    discard(session, mExporter.releaseHolder(session, busName));
    mChannels.onPeerDied(session, busName);
}

void DesktopTransport::onSessionEnded(SessionId session) {
    notifyLater(mDeathWatch.takeAll(session));
    discard(session, mExporter.releaseSession(session));
    mChannels.onSessionEnded(session);
}

// On workers, never on the loop: a recipient takes locks that other threads hold while they wait for a reply,
// and replies need the loop.
void DesktopTransport::notifyLater(std::vector<DeathWatch::Watcher> watchers) {
    for (DeathWatch::Watcher& watcher : watchers) {
        mWorkers.post([watcher = std::move(watcher)] {
            const sp<IBase> proxy = watcher.proxy.promote();
            const auto links = watcher.links.lock();
            if (proxy != nullptr && links) links->notify(proxy);
        });
    }
}

void DesktopTransport::discard(SessionId session, std::vector<ObjectExporter::Dropped> dropped) {
    for (ObjectExporter::Dropped& entry : dropped) {
        mLoop.post(session, [path = entry.path](BusSession& current) { current.removeObject(path); });
        mWorkers.post([object = std::move(entry.object)] {});  // a destructor may call the service
    }
}

void DesktopTransport::publish(SessionId session, Kind kind, const std::string& path) {
    mLoop.post(session, [this, kind, path](BusSession& current) {
        current.addObject(path, [&](sdbus::IObject& object) {
            addReferenceMethods(object, current.id(), kind, path);
            if (kind == Kind::CALLBACK) addCallbackMethods(object, current, path);
            if (kind == Kind::PRODUCER) addProducerMethods(object, current.id(), path);
        });
    });
}

void DesktopTransport::addReferenceMethods(sdbus::IObject& object, SessionId session, Kind kind,
                                           const std::string& path) {
    object.registerMethod(bus::kReferenceInterface, bus::kAcquire, "", "",
                          [this, session, kind, path](const sdbus::MethodCall& call) {
                              if (kind == Kind::CALLBACK)
                                  throw sdbus::Error(bus::kErrorAccessDenied, "callbacks are not passed on");
                              if (!mExporter.holdAgain(session, call.getSender(), path))
                                  throw sdbus::Error(bus::kErrorUnknownObject, path + " is no longer there");
                              call.createReply().send();
                          });
    object.registerMethod(bus::kReferenceInterface, bus::kRelease, "", "",
                          [this, session, path](const sdbus::MethodCall& call) {
                              discard(session, mExporter.release(session, call.getSender(), path));
                          });
}

void DesktopTransport::addCallbackMethods(sdbus::IObject& object, BusSession& session,
                                          const std::string& path) {
    object.registerMethod(bus::kCallbackInterface, bus::kOnCommand, "v", {"command"}, "v", {"reply"},
                          [this, &session, path](sdbus::MethodCall call) { onCommand(session, path, call); });
}

void DesktopTransport::addProducerMethods(sdbus::IObject& object, SessionId session,
                                          const std::string& path) {
    object.registerMethod(bus::kProducerInterface, bus::kOpenChannel, "", {}, "h", {"channel"},
                          [this, session, path](const sdbus::MethodCall& call) {
                              const sp<IBase> producer = mExporter.find(session, Kind::PRODUCER, path);
                              if (producer == nullptr || !mExporter.isHeldBy(session, call.getSender(), path))
                                  throw sdbus::Error(bus::kErrorUnknownObject, path + " is no longer there");
                              auto channel = mChannels.open(
                                  session, call.getSender(),
                                  static_cast<ProducerChannels::IGraphicBufferProducer*>(producer.get()));
                              if (channel < 0) throw sdbus::Error(bus::kErrorFailed, "no channel to be had");
                              sdbus::MethodReply reply = call.createReply();
                              reply << sdbus::UnixFd(channel.release(), sdbus::adopt_fd);
                              reply.send();
                          });
}

void DesktopTransport::onCommand(BusSession& session, const std::string& path, sdbus::MethodCall& call) {
    const sp<IBase> object = mExporter.find(session.id(), Kind::CALLBACK, path);
    if (object == nullptr) throw sdbus::Error(bus::kErrorUnknownObject, path + " is no longer there");
    // Lent to the process that had the service's name, and never passed on.
    if (!mExporter.isHeldBy(session.id(), call.getSender(), path))
        throw sdbus::Error(bus::kErrorAccessDenied, call.getSender() + " is not the desktop service");
    const sp<ICameraDesktopCallback> callback = static_cast<ICameraDesktopCallback*>(object.get());
    const WireText command = WireText::read(call);
    const auto ticket = session.park(call);
    const bool isTaken =
        mWorkers.postFor(call.getSender(), [this, callback, command, id = session.id(), ticket] {
            mLoop.post(id, [answer = runCommand(callback, command), ticket](BusSession& current) {
                if (answer.errorName != nullptr) {
                    current.refuse(ticket, answer.errorName, answer.errorText);
                    return;
                }
                current.answer(ticket, [&](sdbus::MethodReply& reply) { answer.text.write(reply); });
            });
        });
    if (!isTaken) session.refuse(ticket, bus::kErrorLimitsExceeded, "no thread for the command");
}

}  // namespace vel::dbus_transport
