#pragma once

#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <memory>

#include "DesktopTransport.h"

namespace vel::host {

// The desktop service in another process. Addresses the process that had the service's name at the look-up: a
// service that starts again is another object, found by another look-up.
//
// Calls block until the service answers or dies; they hold no lock and may come from any thread, several at a
// time. A call fails with DEAD_OBJECT once the service or the bus is gone, with an exception when the service
// answers with an error of its own, and with FAILED_TRANSACTION otherwise.
class RemoteCameraDesktop final : public DesktopTransport::ICameraDesktop {
  public:
    using IBase = DesktopTransport::IBase;
    using ClientType = korvanta::hardware::camera::desktop::V2_0::ClientType;
    using ICameraDesktopCallback = korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback;
    using IGraphicBufferProducer = android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;
    template <typename T>
    using Return = android::hardware::Return<T>;

    RemoteCameraDesktop(DesktopTransport& transport, const OpenSession& session, const std::string& busName);
    ~RemoteCameraDesktop() override;

    bool isRemote() const override { return true; }
    Return<void> ping() override;
    Return<bool> linkToDeath(const android::sp<android::hardware::hidl_death_recipient>& recipient,
                             uint64_t cookie) override;
    Return<bool> unlinkToDeath(
        const android::sp<android::hardware::hidl_death_recipient>& recipient) override;

    // The service at the other end has no such operations: UNKNOWN_TRANSACTION.
    Return<void> reserved1() override { return unknownOperation(); }
    Return<void> reserved2() override { return unknownOperation(); }
    Return<void> reserved3() override { return unknownOperation(); }
    Return<void> reserved4() override { return unknownOperation(); }

    Return<void> registerCallback(ClientType type,
                                  const android::sp<ICameraDesktopCallback>& callback) override;
    Return<void> sendCommand(ClientType type, const android::hardware::hidl_string& command,
                             sendCommand_cb _hidl_cb) override;
    // A local surface is kept known, so that getSurface() in this process finds it again; no other process
    // can reach it yet.
    Return<void> setSurface(ClientType type, const android::sp<IGraphicBufferProducer>& producer) override;
    Return<android::sp<IGraphicBufferProducer>> getSurface(ClientType type) override;

  private:
    static Return<void> unknownOperation() {
        return android::hardware::Status::fromStatusT(android::UNKNOWN_TRANSACTION);
    }
    CallStatus call(const char* method, const BusLoop::WriteArguments& writeArguments,
                    const BusLoop::ReadReply& readReply);
    Return<void> give(const char* method, ClientType type, DesktopTransport::Kind kind,
                      const android::sp<IBase>& object);

    DesktopTransport& mTransport;
    const OpenSession mSession;
    const RemoteObject mService;
    const std::shared_ptr<DeathLinks> mLinks = std::make_shared<DeathLinks>();
};

}  // namespace vel::host
