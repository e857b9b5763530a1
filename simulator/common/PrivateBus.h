#pragma once

#include <memory>
#include <string>

#include "ChildProcess.h"

namespace vel::sim {

/**
 * A message bus of one's own: a dbus-daemon that admits only the user who starts it. It ends with this
 * object. Socket and configuration have no file, so nothing is left even when this process is killed. Nothing
 * of the session or system bus is touched.
 */
class PrivateBus {
  public:
    /** Starts the daemon and waits until it listens. Throws std::runtime_error when it does not. */
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /** For desktop_bus::kAddressVariable, for example "unix:abstract=vel-bus-1a2b3c4d5e6f7081". */
    const std::string& address() const { return mAddress; }

    /** Ends the daemon at once, as a crash would; every connection breaks. */
    void kill();
    /** Starts a daemon anew at the same address, after kill(). Throws as the constructor does. */
    void restart();
    /** Stops the daemon where it is: connections last, and nothing is answered any more. */
    void suspend();
    /** Lets it go on. */
    void resume();

  private:
    void start(const std::string& address);

    std::unique_ptr<ChildProcess> mDaemon;
    std::string mAddress;
};

}  // namespace vel::sim
