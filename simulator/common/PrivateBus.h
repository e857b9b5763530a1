#pragma once

#include <memory>
#include <string>

#include "ChildProcess.h"

namespace vel::sim {

// A message bus of one's own: a dbus-daemon in a fresh directory that admits only the user who starts it. It
// ends with this object, and the directory goes with it. Nothing of the session or system bus is touched.
class PrivateBus {
  public:
    // Starts the daemon and waits until it listens. Throws std::runtime_error when it does not.
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // For VEL_DESKTOP_BUS_ADDRESS, for example "unix:path=/tmp/vel-bus-Ab12Cd/bus".
    const std::string& address() const { return mAddress; }

    // Ends the daemon at once, as a crash would; every connection breaks.
    void kill();

  private:
    // A fresh directory, removed with all it holds at the end.
    struct Directory {
        Directory();
        ~Directory();
        std::string path;
    };

    Directory mDirectory;
    std::unique_ptr<ChildProcess> mDaemon;
    std::string mAddress;
};

}  // namespace vel::sim
