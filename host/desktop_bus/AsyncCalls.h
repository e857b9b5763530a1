#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "WireTypes.h"

namespace sdbus {
class Error;
class IConnection;
class IProxy;
class MethodCall;
class MethodReply;
}  // namespace sdbus

namespace vel::desktop_bus {

/**
 * The calls of one connection that wait for their replies. Everything happens on the connection's thread.
 *
 * Every call that was begun ends with exactly one call of its reply function: by the reply, by an error, by
 * failCallsTo() or by the destructor. A peer's death is told by the bus before the error of the calls that it
 * left open, so that failCallsTo() ends them sooner and in order.
 */
class AsyncCalls {
  public:
    using WriteArguments = std::function<void(sdbus::MethodCall&)>;
    // Either the reply (error null) or the error (reply null); it must not throw.
    using OnReply = std::function<void(sdbus::MethodReply* reply, const sdbus::Error* error)>;

    explicit AsyncCalls(sdbus::IConnection& connection);
    /** Ends every waiting call as failCallsTo() does. */
    ~AsyncCalls();

    /** Begins a call. A call that cannot be sent ends at once, inside begin(). */
    void begin(const InterfaceObject& object, const std::string& interface, const std::string& method,
               const WriteArguments& writeArguments, OnReply onReply);
    /** Sends a call whose outcome does not matter; its receiver gives no reply. */
    void sendOneWay(const InterfaceObject& object, const std::string& interface, const std::string& method);

    /** Ends every call to that bus name with the error NoReply. */
    void failCallsTo(const std::string& busName);
    /** Frees what the finished calls used. Not to be called from within a reply function. */
    void collectFinished();

  private:
    struct Call {
        std::string busName;
        std::unique_ptr<sdbus::IProxy> proxy;
        OnReply onReply;
    };

    void finish(uint64_t id, sdbus::MethodReply* reply, const sdbus::Error* error);

    sdbus::IConnection& mConnection;
    uint64_t mNextId = 0;
    std::map<uint64_t, Call> mWaiting;
    std::vector<std::unique_ptr<sdbus::IProxy>>
        mFinished;  // a proxy may not be destroyed inside its own reply
};

/**
 * Waits until the connection has something to process or the descriptor is readable; returns early on a
 * signal. On the connection's thread; throws sdbus::Error.
 */
void waitForBusOr(const sdbus::IConnection& connection, int descriptor);

/**
 * Has the function called, on the connection's thread, with the unique name of each process that leaves the
 * bus. To be called once, before the connection processes anything: a match that is added later would wait
 * for the bus in the midst of other traffic. Throws sdbus::Error.
 */
void watchPeerDeaths(sdbus::IConnection& connection, std::function<void(const std::string& busName)> onDeath);

}  // namespace vel::desktop_bus
