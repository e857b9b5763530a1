#pragma once

#include <memory>

#include "DesktopTransport.h"

namespace vel::dbus_transport {

/**
 * What a proxy of any interface keeps: the object that it stands for and who wants to hear of its end. A
 * member of the proxy. Any thread.
 *
 * Calls block until the peer answers or dies, without limit, and hold no lock.
 */
class ProxyLink {
  public:
    using IBase = DesktopTransport::IBase;
    using Recipient = android::hardware::hidl_death_recipient;

    /** The names are borrowed for good, the proxy is this object's owner. */
    ProxyLink(DesktopTransport& transport, IBase* proxy, const RemoteObject& target, const char* interface);
    ~ProxyLink();
    ProxyLink(const ProxyLink&) = delete;
    ProxyLink& operator=(const ProxyLink&) = delete;

    DesktopTransport& transport() const { return mTransport; }
    const RemoteObject& target() const { return mTarget; }

    /** A call of the interface's method; a failure that is not a death is logged. */
    CallStatus call(const char* method, const BusLoop::WriteArguments& writeArguments,
                    const BusLoop::ReadReply& readReply) const;

    /** The base operations of the same names. */
    android::hardware::Return<void> ping() const;
    bool linkToDeath(const android::sp<Recipient>& recipient, uint64_t cookie) const;
    bool unlinkToDeath(const android::sp<Recipient>& recipient) const { return mLinks->remove(recipient); }

  private:
    DesktopTransport& mTransport;
    IBase* const mProxy;
    const RemoteObject mTarget;
    const char* const mInterface;
    const std::shared_ptr<DeathLinks> mLinks = std::make_shared<DeathLinks>();
};

/** For calls without arguments or results. */
inline void writeNothing(sdbus::MethodCall&) {}
inline void readNothing(sdbus::MethodReply&) {}

/** What a call with an empty reply function returns, without having been made. */
inline android::hardware::Status noReplyFunction() {
    return android::hardware::Status::fromExceptionCode(android::hardware::Status::EX_ILLEGAL_ARGUMENT,
                                                        "Null synchronous callback passed.");
}

/** An operation that does not cross between processes. */
inline android::hardware::Status unknownOperation() {
    return android::hardware::Status::fromStatusT(android::UNKNOWN_TRANSACTION);
}

}  // namespace vel::dbus_transport
