// Plays a camera switch, an exchange of capture metadata and frames between the desktop service, the desktop
// application and the camera server, each a process of its own on a private bus, and checks that every
// expected message was seen.

#include <cstdio>
#include <exception>
#include <string>

#include "CameraSwitch.h"
#include "FrameScene.h"
#include "MetadataExchange.h"
#include "Peers.h"
#include "Program.h"
#include "Recorder.h"

namespace {

using vel::sim::FrameOptions;
using vel::sim::Peers;
using vel::sim::Recorder;

int run(const std::string& directory, const FrameOptions& frames, Recorder& recorder) {
    Peers peers(directory, recorder);
    if (!peers.start(frames.input == "-")) {
        recorder.print();
        std::printf("the desktop service did not start\n");
        return 1;
    }
    const auto send = [&](const std::string& peer, const std::string& line) {
        return peers.send(peer, line);
    };
    std::vector<std::string> missing;
    const auto mayGoOn = [&] { return missing.empty() && !recorder.isInterrupted(); };
    if (frames.input.empty()) {
        missing = vel::sim::play(vel::sim::cameraSwitch(), recorder, send);
        vel::sim::printFewCaptures(recorder);
        if (mayGoOn()) missing = vel::sim::play(vel::sim::metadataExchange(), recorder, send);
    }
    std::string problem;
    if (mayGoOn()) {
        problem =
            vel::sim::playFrames(frames, recorder, send, [&] { return peers.isAlive("camera_server"); });
    }
    if (recorder.isInterrupted()) {
        std::printf("\ninterrupted\n");
        return 130;
    }
    for (const std::string& expectation : missing)
        std::printf("missing: %s\n", expectation.c_str());
    const bool endedWell = peers.end();
    recorder.print();
    if (!problem.empty()) std::fprintf(stderr, "desktop_run: %s\n", problem.c_str());
    if (!missing.empty() || !problem.empty() || !endedWell) return 1;
    std::printf(frames.input.empty() ? "\nevery expected message was seen\n"
                                     : "\nevery frame was replaced\n");
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
    FrameOptions frames;
    cli.add_option("--programs", directory, "folder of the three programs (default: this program's own)");
    cli.add_option(
        "--input", frames.input,
        "video that the frames come from, - for YUV4MPEG2 on standard input; only frames are played");
    cli.add_option("--output", frames.output, "file for the replaced frames of stream 0, as YUV4MPEG2");
    cli.add_option("--effect", frames.effect, "what the application does to them: tint, mirror, blur or none")
        ->check(CLI::IsMember({"tint", "mirror", "blur", "none"}));
    if (const auto code = vel::sim::parseArguments(cli, argc, argv)) return *code;

    vel::sim::EndSignals signals;
    Recorder recorder;
    const vel::sim::EndSignalWatcher watcher(signals, [&] { recorder.interrupt(); });
    try {
        frames.check();
        return run(directory, frames, recorder);
    } catch (const std::exception& error) {
        std::printf("the run could not start: %s\n", error.what());
        return 1;
    }
}
