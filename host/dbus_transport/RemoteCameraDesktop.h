#pragma once

#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include "ProxyLink.h"

namespace vel::dbus_transport {

/**
 * The desktop service in another process. Addresses the process that had the service's name at the look-up: a
 * service that starts again is another object, found by another look-up.
 *
 * Calls block until the service answers or dies; they hold no lock and may come from any thread, several at a
 * time. A call fails with DEAD_OBJECT once the service or the bus is gone, with an exception when the service
 * answers with an error of its own, and with FAILED_TRANSACTION otherwise.
 */
class RemoteCameraDesktop final : public korvanta::hardware::camera::desktop::V2_0::ICameraDesktop {
  public:
    using IBase = DesktopTransport::IBase;
    using ClientType = korvanta::hardware::camera::desktop::V2_0::ClientType;
    using ICameraDesktopCallback = korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback;
    using IGraphicBufferProducer = android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;
    using Recipient = android::hardware::hidl_death_recipient;
    template <typename T>
    using Return = android::hardware::Return<T>;

    RemoteCameraDesktop(DesktopTransport& transport, const OpenSession& session, const std::string& busName);

    bool isRemote() const override { return true; }
    Return<void> ping() override { return mLink.ping(); }
    Return<bool> linkToDeath(const android::sp<Recipient>& recipient, uint64_t cookie) override {
        return mLink.linkToDeath(recipient, cookie);
    }
    Return<bool> unlinkToDeath(const android::sp<Recipient>& recipient) override {
        return mLink.unlinkToDeath(recipient);
    }

    /** The service at the other end has no such operations: UNKNOWN_TRANSACTION. */
    Return<void> reserved1() override { return unknownOperation(); }
    Return<void> reserved2() override { return unknownOperation(); }
    Return<void> reserved3() override { return unknownOperation(); }
    Return<void> reserved4() override { return unknownOperation(); }

    Return<void> registerCallback(ClientType type,
                                  const android::sp<ICameraDesktopCallback>& callback) override;
    Return<void> sendCommand(ClientType type, const android::hardware::hidl_string& command,
                             sendCommand_cb _hidl_cb) override;
    /**
     * A local surface is served to whichever process the service hands it to, for as long as any holds it.
     */
    Return<void> setSurface(ClientType type, const android::sp<IGraphicBufferProducer>& producer) override;
    /**
     * This process's own object when it is one, else a new proxy; the proxy of a process that has died
     * meanwhile is as good as any other of a dead process.
     */
    Return<android::sp<IGraphicBufferProducer>> getSurface(ClientType type) override;

  private:
    Return<void> give(const char* method, ClientType type, DesktopTransport::Kind kind,
                      const android::sp<IBase>& object);

    const OpenSession mSession;
    const ProxyLink mLink;
};

}  // namespace vel::dbus_transport
