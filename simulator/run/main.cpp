// Plays a camera switch and an exchange of capture metadata between the desktop service, the desktop
// application and the camera server, each a process of its own on a private bus, and checks that every
// expected message was seen.

#include <cstdio>
#include <exception>
#include <string>
#include <thread>

#include "CameraSwitch.h"
#include "MetadataExchange.h"
#include "Peers.h"
#include "Program.h"
#include "Recorder.h"

namespace {

using vel::sim::Peers;
using vel::sim::Recorder;

int run(const std::string& directory, Recorder& recorder) {
    Peers peers(directory, recorder);
    if (!peers.start()) {
        recorder.print();
        std::printf("the desktop service did not start\n");
        return 1;
    }
    const auto send = [&](const std::string& peer, const std::string& line) {
        return peers.send(peer, line);
    };
    auto missing = vel::sim::play(vel::sim::cameraSwitch(), recorder, send);
    if (missing.empty() && !recorder.isInterrupted()) {
        vel::sim::printFewCaptures(recorder);
        missing = vel::sim::play(vel::sim::metadataExchange(), recorder, send);
    }
    if (recorder.isInterrupted()) {
        std::printf("\ninterrupted\n");
        return 130;
    }
    for (const std::string& expectation : missing)
        std::printf("missing: %s\n", expectation.c_str());
    const bool endedWell = peers.end();
    recorder.print();
    if (!missing.empty() || !endedWell) return 1;
    std::printf("\nevery expected message was seen\n");
    return 0;
}

std::string directoryOf(const char* program) {
    const std::string path = program;
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App cli(
        "Plays a camera switch and an exchange of capture metadata between the desktop service, the desktop "
        "application and the camera server on a private bus, prints the timeline, and fails, naming what is "
        "missing, unless every expected message was seen. Leaves no process behind.");
    std::string directory = directoryOf(argv[0]);
    cli.add_option("--programs", directory, "folder of the three programs (default: this program's own)");
    if (const auto code = vel::sim::parseArguments(cli, argc, argv)) return *code;

    vel::sim::EndSignals signals;
    Recorder recorder;
    std::thread([&] {
        signals.wait();
        recorder.interrupt();
    }).detach();
    try {
        return run(directory, recorder);
    } catch (const std::exception& error) {
        std::printf("the run could not start: %s\n", error.what());
        return 1;
    }
}
