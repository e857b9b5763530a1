#pragma once

#include <functional>
#include <string>

namespace sdbus {
class IConnection;
}

namespace vel::desktop_bus {

// Waits until the connection has something to process or the descriptor is readable; returns early on a
// signal. On the connection's thread; throws sdbus::Error.
void waitForBusOr(const sdbus::IConnection& connection, int descriptor);

// Has the function called, on the connection's thread, with the unique name of each process that leaves the
// bus. To be called once, before the connection processes anything: a match that is added later would wait
// for the bus in the midst of other traffic. Throws sdbus::Error.
void watchPeerDeaths(sdbus::IConnection& connection, std::function<void(const std::string& busName)> onDeath);

}  // namespace vel::desktop_bus
