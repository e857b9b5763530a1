// The desktop service as a program on a message bus of its own.
#include <sdbus-c++/sdbus-c++.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "DesktopBusNames.h"
#include "DesktopService.h"
#include "Trace.h"

namespace {

// From here on SIGINT and SIGTERM are read from the descriptor instead of ending the process.
int openEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

bool endRequested(int endSignals) {
    signalfd_siginfo info;
    return read(endSignals, &info, sizeof(info)) == sizeof(info);
}

void serve(const std::string& address, const Trace& trace) {
    const int endSignals = openEndSignals();
    const auto connection = sdbus::createSessionBusConnectionWithAddress(address);
    DesktopService service(*connection, trace);
    service.publish();
    while (!endRequested(endSignals)) {
        const bool processed = connection->processPendingRequest();
        service.collectFinished();
        if (!processed) vel::desktop_bus::waitForBusOr(*connection, endSignals);
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App options(
        "The desktop service: passes commands and surfaces between the desktop application, the "
        "camera service and the camera HAL.");
    std::string address;
    bool trace = false;
    int64_t timeOriginNs = 0;
    options.add_option("--bus", address, "address of the message bus")
        ->type_name("ADDRESS")
        ->envname(vel::desktop_bus::kAddressVariable)
        ->required();
    options.add_flag("--trace", trace, "print a line for each message, reply and change");
    options
        .add_option("--time-origin", timeOriginNs,
                    "steady clock, in ns, that printed times count from (default: the machine's start)")
        ->type_name("NS");
    try {
        options.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return options.exit(error) == 0 ? 0 : 2;
    }

    try {
        serve(address, Trace(trace, timeOriginNs));
        return EXIT_SUCCESS;
    } catch (const sdbus::Error& error) {
        const bool taken = error.getName() == "org.freedesktop.DBus.Error.FileExists";
        std::fprintf(stderr, "desktop_service: %s\n",
                     taken ? "another process serves this bus already" : error.what());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "desktop_service: %s\n", error.what());
    }
    return EXIT_FAILURE;
}
