#include "BusEvents.h"

#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>

namespace vel::desktop_bus {
namespace {

// All names, since a match for each would have to be added while the connection is in use.
constexpr char kNameOwnerChanged[] =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged'";

}  // namespace

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
