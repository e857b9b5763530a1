#include "BusSession.h"

#include <sdbus-c++/sdbus-c++.h>

#include "BusEvents.h"
#include "DesktopBusNames.h"

namespace vel::host {

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
    mObjects.erase(path);
}

BusSession::Ticket BusSession::park(const sdbus::MethodCall& call) {
    const Ticket ticket = mNextTicket++;
    mParked.emplace(ticket, call);
    return ticket;
}

void BusSession::answer(Ticket ticket, const std::function<void(sdbus::MethodReply&)>& writeReply) {
    const sdbus::MethodCall call = takeParked(ticket);
    try {
        sdbus::MethodReply reply = call.createReply();
        writeReply(reply);
        reply.send();
    } catch (const sdbus::Error& error) {
        call.createErrorReply(error).send();
    }
}

void BusSession::refuse(Ticket ticket, const std::string& errorName, const std::string& errorText) {
    takeParked(ticket).createErrorReply(sdbus::Error(errorName, errorText)).send();
}

sdbus::MethodCall BusSession::takeParked(Ticket ticket) {
    return std::move(mParked.extract(ticket).mapped());
}

}  // namespace vel::host
