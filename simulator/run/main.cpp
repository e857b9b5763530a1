// Plays a camera switch, an exchange of capture metadata and frames between the desktop service, the desktop
// application and the camera server, each a process of its own on a private bus, and checks that every
// expected message was seen.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>
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

int interrupted(Peers& peers) {
    peers.interrupt();
    std::printf("\ninterrupted\n");
    return 130;
}

int run(const std::string& directory, const FrameOptions& frames, Recorder& recorder) {
    Peers peers(directory, recorder);
    const bool isStarted = peers.start(frames.input == "-");
    const auto send = [&](const std::string& peer, const std::string& line) {
        return peers.send(peer, line);
    };
    std::vector<std::string> missing;
    std::string problem = isStarted ? "" : "the desktop service did not start";
    const auto mayGoOn = [&] { return problem.empty() && missing.empty() && !recorder.isInterrupted(); };
    if (mayGoOn()) missing = vel::sim::play(vel::sim::registration(), recorder, send);
    if (frames.input.empty()) {
        if (mayGoOn()) missing = vel::sim::play(vel::sim::cameraSwitch(), recorder, send);
        vel::sim::printFewCaptures(recorder);
        if (mayGoOn()) missing = vel::sim::play(vel::sim::metadataExchange(), recorder, send);
    }
    if (mayGoOn()) {
        problem =
            vel::sim::playFrames(frames, recorder, send, [&] { return peers.isAlive("camera_server"); });
    }
    if (recorder.isInterrupted()) return interrupted(peers);
    const bool endedWell = peers.end();
    recorder.print();
    for (const std::string& expectation : missing)
        std::printf("missing: %s\n", expectation.c_str());
    if (!problem.empty()) std::fprintf(stderr, "desktop_run: %s\n", problem.c_str());
    if (!missing.empty() || !problem.empty() || !endedWell) return 1;
    std::printf(frames.input.empty() ? "\nevery expected message was seen\n"
                                     : "\nevery frame was replaced\n");
    return 0;
}

// A file's name goes to the camera server in a line.
const CLI::Validator kFileName(
    [](std::string& name) -> std::string {
        if (name.empty()) return "a file's name is needed";
        return name.find('\n') == std::string::npos ? "" : "a file's name must not hold a newline";
    },
    "");

// So that no file that is opened later takes the number of a standard stream that was closed.
void openStandardStreams() {
    while (true) {
        const int fd = open("/dev/null", O_RDONLY);
        if (fd > STDERR_FILENO) close(fd);
        if (fd < 0 || fd > STDERR_FILENO) return;
    }
}

std::string directoryOf(const char* program) {
    const std::string path = program;
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App cli(
        "Plays a camera switch, an exchange of capture metadata and frames that are replaced between the "
        "desktop "
        "service, the desktop application and the camera server on a private bus. Prints the timeline, "
        "writes "
        "out/contact-sheet.png, and fails, naming what is missing, unless all went as expected. Leaves no "
        "process behind.");
    std::string directory = directoryOf(argv[0]);
    FrameOptions frames;
    cli.add_option("--programs", directory, "folder of the three programs (default: this program's own)")
        ->type_name("FOLDER");
    cli.add_option("--input", frames.input,
                   "video or picture that the frames come from, - for YUV4MPEG2 on standard input; only "
                   "frames are played")
        ->type_name("FILE")
        ->check(kFileName);
    cli.add_option("--output", frames.output,
                   "file for the replaced frames of stream 0, as YUV4MPEG2; not with a failure")
        ->type_name("FILE")
        ->check(kFileName);
    cli.add_option("--effect", frames.effect,
                   "what the application does to them: tint (default), mirror, blur or none")
        ->type_name("EFFECT")
        ->check(CLI::IsMember({"tint", "mirror", "blur", "none"}));
    if (const auto code = vel::sim::parseArguments(cli, argc, argv)) return *code;

    openStandardStreams();
    vel::sim::EndSignals signals;
    std::signal(SIGPIPE, SIG_IGN);  // a reader of the timeline that goes is told by the write
    Recorder recorder;
    const vel::sim::EndSignalWatcher watcher(signals, [&] { recorder.interrupt(); });
    try {
        if (frames.input == "-" && isatty(STDIN_FILENO) != 0)
            throw std::invalid_argument("standard input is a terminal, no YUV4MPEG2 stream");
        const int code = run(directory, frames, recorder);
        if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return code;
        throw std::runtime_error("the timeline cannot be written to standard output");
    } catch (const std::exception& error) {
        std::fprintf(stderr, "desktop_run: %s\n", error.what());
        return 1;
    }
}
