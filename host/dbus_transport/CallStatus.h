#pragma once

#include <hidl/Status.h>

#include <string>

namespace sdbus {
class Error;
}

namespace vel::dbus_transport {

/** How a call over the bus ended. */
struct CallStatus {
    enum Kind {
        OK,
        DEAD,     // the peer, its object or the bus is gone
        REFUSED,  // the service answered with an error of its own
        FAILED,   // anything else: the message could not be sent, read or was not understood
    };
    Kind kind = OK;
    std::string text;  // of the error, for the log

    /**
     * The failed status as callers of the interface see it: DEAD_OBJECT, an exception with the text, or
     * FAILED_TRANSACTION.
     */
    android::hardware::Status toStatus() const;

    static CallStatus of(const sdbus::Error& error);
};

/**
 * The same transport failure, DEAD_OBJECT or FAILED_TRANSACTION, for a caller that expects another result.
 */
android::hardware::Status failureOf(const android::hardware::details::return_status& failed);

}  // namespace vel::dbus_transport
