#include "AsyncCalls.h"

#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>

#include "DesktopBusNames.h"

namespace vel::desktop_bus {
namespace {

// All names, since a match for each would have to be added while the connection is in use.
constexpr char kNameOwnerChanged[] =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged'";

}  // namespace

AsyncCalls::AsyncCalls(sdbus::IConnection& connection) : mConnection(connection) {}

AsyncCalls::~AsyncCalls() {
    const sdbus::Error error(kErrorNoReply, "The connection to the bus has ended");
    while (!mWaiting.empty())
        finish(mWaiting.begin()->first, nullptr, &error);
}

void AsyncCalls::begin(const InterfaceObject& object, const std::string& interface, const std::string& method,
                       const WriteArguments& writeArguments, OnReply onReply) {
    const uint64_t id = mNextId++;
    Call& call = mWaiting[id];
    call.busName = object.busName;
    call.onReply = std::move(onReply);
    try {
        call.proxy = sdbus::createProxy(mConnection, object.busName, object.path);
        sdbus::MethodCall message = call.proxy->createMethodCall(interface, method);
        writeArguments(message);
        call.proxy->callMethod(message, [this, id](sdbus::MethodReply& reply, const sdbus::Error* error) {
            finish(id, error == nullptr ? &reply : nullptr, error);
        });
    } catch (const sdbus::Error& error) {
        finish(id, nullptr, &error);
    }
}

void AsyncCalls::sendOneWay(const InterfaceObject& object, const std::string& interface,
                            const std::string& method) {
    try {
        const auto proxy = sdbus::createProxy(mConnection, object.busName, object.path);
        sdbus::MethodCall message = proxy->createMethodCall(interface, method);
        message.dontExpectReply();
        (void)proxy->callMethod(message);
    } catch (const sdbus::Error&) {
        // The receiver or the bus is gone, and with it the matter.
    }
}

void AsyncCalls::failCallsTo(const std::string& busName) {
    const sdbus::Error error(kErrorNoReply, busName + " has ended");
    std::vector<uint64_t> ids;
    for (const auto& [id, call] : mWaiting) {
        if (call.busName == busName) ids.push_back(id);
    }
    for (const uint64_t id : ids)
        finish(id, nullptr, &error);
}

void AsyncCalls::collectFinished() {
    mFinished.clear();
}

void AsyncCalls::finish(uint64_t id, sdbus::MethodReply* reply, const sdbus::Error* error) {
    auto entry = mWaiting.extract(id);
    if (entry.empty()) return;
    if (entry.mapped().proxy) mFinished.push_back(std::move(entry.mapped().proxy));
    entry.mapped().onReply(reply, error);
}

void waitForBusOr(const sdbus::IConnection& connection, int descriptor) {
    const auto bus = connection.getEventLoopPollData();
    pollfd sources[] = {{bus.fd, bus.events, 0}, {descriptor, POLLIN, 0}};
    (void)poll(sources, 2, bus.getPollTimeout());
}

void watchPeerDeaths(sdbus::IConnection& connection, std::function<void(const std::string&)> onDeath) {
    connection.addMatch(
        kNameOwnerChanged,
        [onDeath = std::move(onDeath)](sdbus::Message& signal) {
            std::string name, oldOwner, newOwner;
            signal >> name >> oldOwner >> newOwner;
            if (name == oldOwner && newOwner.empty()) onDeath(name);
        },
        sdbus::floating_slot);
}

}  // namespace vel::desktop_bus
