#include "RemoteCameraDesktop.h"

#include <android/log.h>
#include <hidl_host/RemoteIdentity.h>
#include <sdbus-c++/sdbus-c++.h>

#include "DesktopBusNames.h"
#include "WireText.h"

namespace vel::host {

namespace bus = vel::desktop_bus;
using android::sp;
using android::hardware::hidl_death_recipient;
using android::hardware::hidl_string;
using android::hardware::Status;
using android::hardware::Void;
using bus::InterfaceObject;
using bus::WireText;

namespace {

constexpr char kTag[] = "DesktopBus";

void ignoreReply(sdbus::MethodReply&) {}

Status failedTransaction(const char* what) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s", what);
    return Status::fromStatusT(android::FAILED_TRANSACTION);
}

}  // namespace

RemoteCameraDesktop::RemoteCameraDesktop(DesktopTransport& transport, const OpenSession& session,
                                         const std::string& busName)
    : mTransport(transport), mSession(session), mService{session.id, {busName, bus::kServicePath}} {
    setRemoteIdentity(this, std::to_string(session.id) + " " + busName + " " + bus::kServicePath);
}

RemoteCameraDesktop::~RemoteCameraDesktop() {
    forgetRemoteIdentity(this);
}

android::hardware::Return<void> RemoteCameraDesktop::ping() {
    return mTransport
        .call(
            mService, "org.freedesktop.DBus.Peer", "Ping", [](sdbus::MethodCall&) {}, ignoreReply)
        .toStatus();
}

android::hardware::Return<bool> RemoteCameraDesktop::linkToDeath(const sp<hidl_death_recipient>& recipient,
                                                                 uint64_t cookie) {
    if (recipient == nullptr || !mLinks->add(recipient, cookie)) return false;
    if (mTransport.watch(mService, {this, mLinks})) return true;
    // Dead before it was watched; unless the notice has just gone out, nobody will tell the recipient.
    return !mLinks->remove(recipient);
}

android::hardware::Return<bool> RemoteCameraDesktop::unlinkToDeath(
    const sp<hidl_death_recipient>& recipient) {
    return mLinks->remove(recipient);
}

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
    const InterfaceObject reference = mTransport.lend(mService, mSession, kind, object);
    const CallStatus status = call(
        method,
        [&](sdbus::MethodCall& message) {
            message << static_cast<uint8_t>(type);
            reference.write(message);
        },
        ignoreReply);
    if (status.kind != CallStatus::OK) mTransport.takeBack(mService, reference);
    return status.toStatus();
}

android::hardware::Return<void> RemoteCameraDesktop::sendCommand(ClientType type, const hidl_string& command,
                                                                 sendCommand_cb _hidl_cb) {
    if (_hidl_cb == nullptr) {
        return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "Null synchronous callback passed.");
    }
    const auto text = WireText::encode(command.c_str(), command.size());
    if (!text) return failedTransaction("The command is too long");
    WireText reply;
    const CallStatus status = call(
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
    const CallStatus status = call(
        bus::kGetSurface, [&](sdbus::MethodCall& message) { message << static_cast<uint8_t>(type); },
        [&](sdbus::MethodReply& message) { producer = InterfaceObject::read(message); });
    if (status.kind != CallStatus::OK) return status.toStatus();
    if (producer.isNull()) return sp<IGraphicBufferProducer>();
    if (producer.busName != mSession.ownName) {
        __android_log_print(
            ANDROID_LOG_ERROR, kTag,
            "The surface of type %d belongs to another process (%s), and buffer queues cannot "
            "be reached across processes yet",
            static_cast<int>(type), producer.busName.c_str());
        return sp<IGraphicBufferProducer>();
    }
    const sp<IBase> local =
        mTransport.findLocal(mSession.id, DesktopTransport::Kind::PRODUCER, producer.path);
    return sp<IGraphicBufferProducer>(static_cast<IGraphicBufferProducer*>(local.get()));
}

CallStatus RemoteCameraDesktop::call(const char* method, const BusLoop::WriteArguments& writeArguments,
                                     const BusLoop::ReadReply& readReply) {
    CallStatus status = mTransport.call(mService, bus::kServiceInterface, method, writeArguments, readReply);
    if (status.kind == CallStatus::REFUSED || status.kind == CallStatus::FAILED) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "%s failed: %s", method, status.text.c_str());
    }
    return status;
}

}  // namespace vel::host
