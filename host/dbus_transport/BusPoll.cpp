#include "BusPoll.h"

#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>

namespace vel::desktop_bus {

void waitForBusOr(const sdbus::IConnection& connection, int descriptor) {
    const auto bus = connection.getEventLoopPollData();
    pollfd sources[] = {{bus.fd, bus.events, 0}, {descriptor, POLLIN, 0}};
    (void)poll(sources, 2, bus.getPollTimeout());
}

}  // namespace vel::desktop_bus
