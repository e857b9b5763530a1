#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "AsyncCalls.h"

namespace vel::dbus_transport {

using SessionId = uint64_t;  // 0: none

/**
 * One connection to the bus, from its opening to its end, and all that hangs on it. Lives on the thread of
 * BusLoop and is used nowhere else.
 */
class BusSession {
  public:
    using OnPeerDied = std::function<void(const std::string& busName)>;
    using Ticket = uint64_t;

    /** Connects; may block for as long as whoever listens there takes. Throws sdbus::Error. */
    BusSession(SessionId id, const std::string& address, OnPeerDied onPeerDied);
    ~BusSession();

    SessionId id() const { return mId; }
    const std::string& uniqueName() const { return mUniqueName; }
    desktop_bus::AsyncCalls& calls() { return *mCalls; }

    /**
     * Handles what has arrived and otherwise waits for the bus or the descriptor. Throws sdbus::Error when
     * the connection has ended.
     */
    void processOrWait(int descriptor);

    /**
     * An object at the path, for addMethods to fill, until removeObject(); it stays while a call to it is
     * parked. Throws sdbus::Error.
     */
    void addObject(const std::string& path, const std::function<void(sdbus::IObject&)>& addMethods);
    void removeObject(const std::string& path);

    /** Keeps an incoming call until it is answered or the session ends. */
    Ticket park(const sdbus::MethodCall& call);
    /**
     * Answer a parked call, once. A reply that cannot be written is answered by its error. Throw
     * sdbus::Error.
     */
    void answer(Ticket ticket, const std::function<void(sdbus::MethodReply&)>& writeReply);
    void refuse(Ticket ticket, const std::string& errorName, const std::string& errorText);

  private:
    struct Parked {
        std::string path;
        sdbus::MethodCall call;
    };

    Parked takeParked(Ticket ticket);
    void removeIfUnused(const std::string& path);

    const SessionId mId;
    const std::unique_ptr<sdbus::IConnection> mConnection;
    std::string mUniqueName;
    std::unique_ptr<desktop_bus::AsyncCalls> mCalls;
    std::map<std::string, std::unique_ptr<sdbus::IObject>> mObjects;  // by path
    std::set<std::string> mRetired;  // paths whose objects go with their last parked call
    Ticket mNextTicket = 0;
    std::map<Ticket, Parked> mParked;  // below the objects, which it refers to
};

}  // namespace vel::dbus_transport
