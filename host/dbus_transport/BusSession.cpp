#include "BusSession.h"

#include <algorithm>

#include "DesktopBusNames.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;

BusSession::BusSession(SessionId id, const std::string& address, OnPeerDied onPeerDied)
    : mId(id),
      mConnection(sdbus::createSessionBusConnectionWithAddress(address)),
      mUniqueName(mConnection->getUniqueName()),
      mCalls(std::make_unique<bus::AsyncCalls>(*mConnection)) {
    // With a limit its passing could not be told from the death of a peer.
    mConnection->setMethodCallTimeout(UINT64_MAX);
    bus::watchPeerDeaths(*mConnection,
                         [this, onPeerDied = std::move(onPeerDied)](const std::string& busName) {
                             mCalls->failCallsTo(busName);
                             onPeerDied(busName);
                         });
}

BusSession::~BusSession() = default;

void BusSession::processOrWait(int descriptor) {
    const bool processed = mConnection->processPendingRequest();
    mCalls->collectFinished();
    if (!processed) bus::waitForBusOr(*mConnection, descriptor);
}

void BusSession::addObject(const std::string& path, const std::function<void(sdbus::IObject&)>& addMethods) {
    auto object = sdbus::createObject(*mConnection, path);
    addMethods(*object);
    object->finishRegistration();
    mObjects[path] = std::move(object);
}

void BusSession::removeObject(const std::string& path) {
    mRetired.insert(path);
    removeIfUnused(path);
}

// A call refers to its object's table of methods until it is answered: sd-bus reads the reply's form there.
void BusSession::removeIfUnused(const std::string& path) {
    const bool isCalled = std::any_of(mParked.begin(), mParked.end(),
                                      [&](const auto& parked) { return parked.second.path == path; });
    if (!isCalled && mRetired.erase(path) != 0) mObjects.erase(path);
}

BusSession::Ticket BusSession::park(const sdbus::MethodCall& call) {
    const Ticket ticket = mNextTicket++;
    mParked.emplace(ticket, Parked{call.getPath(), call});
    return ticket;
}

void BusSession::answer(Ticket ticket, const std::function<void(sdbus::MethodReply&)>& writeReply) {
    const Parked parked = takeParked(ticket);
    try {
        sdbus::MethodReply reply = parked.call.createReply();
        writeReply(reply);
        reply.send();
    } catch (const sdbus::Error& error) {
        parked.call.createErrorReply(error).send();
    }
    removeIfUnused(parked.path);
}

void BusSession::refuse(Ticket ticket, const std::string& errorName, const std::string& errorText) {
    const Parked parked = takeParked(ticket);
    parked.call.createErrorReply(sdbus::Error(errorName, errorText)).send();
    removeIfUnused(parked.path);
}

BusSession::Parked BusSession::takeParked(Ticket ticket) {
    return std::move(mParked.extract(ticket).mapped());
}

}  // namespace vel::dbus_transport
