#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

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

/**
 * The desktop service: passes commands between the peers that have registered a callback, and keeps surfaces
 * for them. It understands neither commands nor surfaces; both are handed on as they came.
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
    using ObjectsByType = std::map<uint8_t, vel::desktop_bus::InterfaceObject>;

    void registerCallback(sdbus::MethodCall& call);
    void sendCommand(sdbus::MethodCall& call);
    void answerCommand(const sdbus::MethodCall& command, uint8_t type, sdbus::MethodReply* reply,
                       const sdbus::Error* error);
    void setSurface(sdbus::MethodCall& call);
    void getSurface(sdbus::MethodCall& call);

    /** Drops what the peer had registered and ends the commands that wait for it. */
    void onPeerDied(const std::string& busName);
    /** Stores the object under its type (null removes) and gives back the reference to the one before. */
    void replace(ObjectsByType& objects, uint8_t type, const vel::desktop_bus::InterfaceObject& object);
    void refuse(const sdbus::MethodCall& call, uint8_t type, const sdbus::Error& error);
    std::string nameOf(const std::string& busName) const;

    sdbus::IConnection& mConnection;
    const Trace& mTrace;
    vel::desktop_bus::AsyncCalls mCalls;
    ObjectsByType mCallbacks;
    ObjectsByType mSurfaces;
    std::unique_ptr<sdbus::IObject> mObject;
};
