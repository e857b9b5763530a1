// The desktop service as a program on a message bus of its own.
#include <sdbus-c++/sdbus-c++.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <stdexcept>

#include "AsyncCalls.h"
#include "DesktopService.h"
#include "EventWriter.h"
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

int serve(const Options& options) try {
    const vel::sim::EndSignals signals;
    const vel::sim::EventWriter events(options.common.eventsFd, vel::sim::Peer::SERVICE);
    const Trace trace(options.trace);
    const auto connection = sdbus::createSessionBusConnectionWithAddress(options.common.bus);
    DesktopService service(*connection, trace);
    service.publish();
    while (!signals.arrived()) {
        const bool processed = connection->processPendingRequest();
        service.collectFinished();
        if (!processed) vel::desktop_bus::waitForBusOr(*connection, signals.fd());
    }
    return EXIT_SUCCESS;
} catch (const sdbus::Error& error) {
    if (error.getName() != "org.freedesktop.DBus.Error.FileExists") throw;
    throw std::runtime_error("another process serves this bus already");
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const auto code = parse(argc, argv, options)) return *code;
    return vel::sim::runProgram("desktop_service", [&] {
        vel::sim::applyCommonOptions(options.common);
        return serve(options);
    });
}
