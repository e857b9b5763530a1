#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "AsyncCalls.h"
#include "WireTypes.h"

namespace sdbus {
class Error;
class IConnection;
class IObject;
class MethodCall;
class MethodReply;
}  // namespace sdbus

class Trace;
struct TracedCommand;

/**
 * The desktop service: passes commands between the peers that have registered a callback, and keeps surfaces
 * for them. It understands neither commands nor surfaces; both are handed on as they came.
 *
 * Of several processes that registered under a type the newest gets its commands; when it goes, the one
 * before it does again. A process registers, and gives as a surface, objects of its own only, and takes back
 * only its own registration. A surface of another process is replaced or cleared by processes that have
 * registered alone. Whatever breaks these rules is refused and changes nothing.
 *
 * Everything happens on the connection's thread, and nothing there ever waits for a peer: a command is begun
 * towards its receiver, and the sender is answered when the receiver answers or dies.
 */
class DesktopService {
  public:
    /** Neither argument is owned. The connection must not have processed anything yet. */
    DesktopService(sdbus::IConnection& connection, const Trace& trace);
    ~DesktopService();

    /**
     * Puts the object and the service's name on the bus. Throws sdbus::Error, FileExists by name when another
     * process has the name.
     */
    void publish();
    /** To be called after each processing step of the connection. */
    void collectFinished() { mCalls.collectFinished(); }

  private:
    using InterfaceObject = vel::desktop_bus::InterfaceObject;
    using Registrations = std::vector<InterfaceObject>;  // one for each process, the newest last

    void registerCallback(sdbus::MethodCall& call);
    void sendCommand(sdbus::MethodCall& call);
    void answerCommand(const sdbus::MethodCall& command, uint8_t type, const TracedCommand& traced,
                       const InterfaceObject& receiver, sdbus::MethodReply* reply, const sdbus::Error* error);
    void setSurface(sdbus::MethodCall& call);
    void getSurface(sdbus::MethodCall& call);

    /** Drops what the peer had registered and ends the commands that wait for it. */
    void onPeerDied(const std::string& busName);
    /** Takes the process's registration out of the type; null when it has none. */
    InterfaceObject removeRegistration(uint8_t type, const std::string& busName);
    /** Who gets the commands of a type; null when nobody does. */
    InterfaceObject newestOf(uint8_t type) const;
    void traceRestored(uint8_t type, const InterfaceObject& newestBefore) const;
    void refuse(const sdbus::MethodCall& call, const TracedCommand& traced, const sdbus::Error& error);
    bool isRegistered(uint8_t type, const std::string& busName) const;
    bool isPeer(const std::string& busName) const;
    std::string nameOf(const std::string& busName) const;

    sdbus::IConnection& mConnection;
    const Trace& mTrace;
    std::map<std::string, size_t> mUnderWay;       // commands that wait for their answers, by sender
    std::map<uint8_t, Registrations> mCallbacks;   // no type without a registration
    std::map<uint8_t, InterfaceObject> mSurfaces;  // no null ones
    vel::desktop_bus::AsyncCalls mCalls;  // ends its calls when it goes, which uses the members above
    std::unique_ptr<sdbus::IObject> mObject;
};
