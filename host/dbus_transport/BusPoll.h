#pragma once

namespace sdbus {
class IConnection;
}

namespace vel::desktop_bus {

// Waits until the connection has something to process or the descriptor is readable; returns early on a
// signal. On the connection's thread; throws sdbus::Error.
void waitForBusOr(const sdbus::IConnection& connection, int descriptor);

}  // namespace vel::desktop_bus
