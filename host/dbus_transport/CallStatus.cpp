#include "CallStatus.h"

#include <sdbus-c++/sdbus-c++.h>
#include <utils/Errors.h>

#include <algorithm>
#include <iterator>

#include "DesktopBusNames.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;

namespace {

// What the bus says for calls to, or left open by, a process or connection that has gone. NoReply means
// nothing else, since calls have no time limit.
constexpr const char* kDeathErrors[] = {
    bus::kErrorNoReply,
    "org.freedesktop.DBus.Error.ServiceUnknown",
    "org.freedesktop.DBus.Error.NameHasNoOwner",
    "org.freedesktop.DBus.Error.Disconnected",
    bus::kErrorUnknownObject,
    "System.Error.ENOTCONN",
    "System.Error.ECONNRESET",
    "System.Error.EPIPE",
};

CallStatus::Kind kindOf(const std::string& errorName) {
    const auto isName = [&](const char* name) { return errorName == name; };
    if (std::any_of(std::begin(kDeathErrors), std::end(kDeathErrors), isName)) return CallStatus::DEAD;
    const bool isOwn = errorName.rfind(bus::kErrorPrefix, 0) == 0;
    return isOwn ? CallStatus::REFUSED : CallStatus::FAILED;
}

}  // namespace

CallStatus CallStatus::of(const sdbus::Error& error) {
    return {kindOf(error.getName()), error.getName() + ": " + error.getMessage()};
}

android::hardware::Status failureOf(const android::hardware::details::return_status& failed) {
    return android::hardware::Status::fromStatusT(failed.isDeadObject() ? android::DEAD_OBJECT
                                                                        : android::FAILED_TRANSACTION);
}

android::hardware::Status CallStatus::toStatus() const {
    using android::hardware::Status;
    switch (kind) {
        case OK:
            return Status::ok();
        case DEAD:
            return Status::fromStatusT(android::DEAD_OBJECT);
        case REFUSED:
            return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, text.c_str());
        case FAILED:
            break;
    }
    return Status::fromStatusT(android::FAILED_TRANSACTION);
}

}  // namespace vel::dbus_transport
