// The desktop service as a program on a message bus of its own.
#include <sdbus-c++/sdbus-c++.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "AsyncCalls.h"
#include "DesktopService.h"
#include "Program.h"
#include "Trace.h"

namespace {

struct Options {
    vel::sim::CommonOptions common;
    bool trace = false;
};

std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App cli(
        "The desktop service: passes commands and surfaces between the desktop application, the "
        "camera service and the camera HAL.");
    vel::sim::addCommonOptions(cli, options.common);
    cli.get_option("--bus")->required();
    cli.add_flag("--trace", options.trace, "print a line for each message, reply and change");
    return vel::sim::parseArguments(cli, argc, argv);
}

void serve(const std::string& address, const Trace& trace) {
    const vel::sim::EndSignals signals;
    const auto connection = sdbus::createSessionBusConnectionWithAddress(address);
    DesktopService service(*connection, trace);
    service.publish();
    while (!signals.arrived()) {
        const bool processed = connection->processPendingRequest();
        service.collectFinished();
        if (!processed) vel::desktop_bus::waitForBusOr(*connection, signals.fd());
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const auto code = parse(argc, argv, options)) return *code;
    vel::sim::applyCommonOptions(options.common);
    try {
        serve(options.common.bus, Trace(options.trace));
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
