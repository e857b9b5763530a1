#include "RemoteCameraDesktop.h"

#include <android/log.h>
#include <sdbus-c++/sdbus-c++.h>

#include "DesktopBusNames.h"
#include "RemoteGraphicBufferProducer.h"
#include "WireTypes.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;
using android::sp;
using android::hardware::hidl_string;
using android::hardware::Status;
using android::hardware::Void;
using bus::InterfaceObject;
using bus::WireText;

namespace {

Status failedTransaction(const char* what) {
    __android_log_print(ANDROID_LOG_ERROR, bus::kLogTag, "%s", what);
    return Status::fromStatusT(android::FAILED_TRANSACTION);
}

}  // namespace

RemoteCameraDesktop::RemoteCameraDesktop(DesktopTransport& transport, const OpenSession& session,
                                         const std::string& busName)
    : mSession(session),
      mLink(transport, this, {session.id, {busName, bus::kServicePath}}, bus::kServiceInterface) {}

android::hardware::Return<void> RemoteCameraDesktop::registerCallback(
    ClientType type, const sp<ICameraDesktopCallback>& callback) {
    return give(bus::kRegisterCallback, type, DesktopTransport::Kind::CALLBACK, callback);
}

android::hardware::Return<void> RemoteCameraDesktop::setSurface(ClientType type,
                                                                const sp<IGraphicBufferProducer>& producer) {
    return give(bus::kSetSurface, type, DesktopTransport::Kind::PRODUCER, producer);
}

android::hardware::Return<void> RemoteCameraDesktop::give(const char* method, ClientType type,
                                                          DesktopTransport::Kind kind,
                                                          const sp<IBase>& object) {
    const InterfaceObject reference = mLink.transport().lend(mLink.target(), mSession, kind, object);
    const CallStatus status = mLink.call(
        method,
        [&](sdbus::MethodCall& message) {
            message << static_cast<uint8_t>(type);
            reference.write(message);
        },
        readNothing);
    if (status.kind != CallStatus::OK) mLink.transport().takeBack(mLink.target(), reference);
    return status.toStatus();
}

android::hardware::Return<void> RemoteCameraDesktop::sendCommand(ClientType type, const hidl_string& command,
                                                                 sendCommand_cb _hidl_cb) {
    if (_hidl_cb == nullptr) return noReplyFunction();
    const auto text = WireText::encode(command.c_str(), command.size());
    if (!text) return failedTransaction("The command is too long");
    WireText reply;
    const CallStatus status = mLink.call(
        bus::kSendCommand,
        [&](sdbus::MethodCall& message) {
            message << static_cast<uint8_t>(type);
            text->write(message);
        },
        [&](sdbus::MethodReply& message) { reply = WireText::read(message); });
    if (status.kind != CallStatus::OK) return status.toStatus();
    const auto replyText = reply.decode();
    if (!replyText) return failedTransaction("The reply is not acceptable");
    _hidl_cb(*replyText);
    return Void();
}

android::hardware::Return<sp<RemoteCameraDesktop::IGraphicBufferProducer>> RemoteCameraDesktop::getSurface(
    ClientType type) {
    InterfaceObject producer;
    sp<IBase> local;
    const CallStatus status = mLink.call(
        bus::kGetSurface, [&](sdbus::MethodCall& message) { message << static_cast<uint8_t>(type); },
        [&](sdbus::MethodReply& message) {
            producer = InterfaceObject::read(message);
            // At once, on the loop: what the service gives back comes after this reply.
            if (producer.busName == mSession.ownName)
                local =
                    mLink.transport().findLocal(mSession.id, DesktopTransport::Kind::PRODUCER, producer.path);
        });
    if (status.kind != CallStatus::OK) return status.toStatus();
    if (producer.isNull() || producer.busName == mSession.ownName)
        return sp<IGraphicBufferProducer>(static_cast<IGraphicBufferProducer*>(local.get()));
    const RemoteObject target{mSession.id, producer};
    mLink.transport().acquire(target);
    return sp<IGraphicBufferProducer>(new RemoteGraphicBufferProducer(mLink.transport(), target));
}

}  // namespace vel::dbus_transport
