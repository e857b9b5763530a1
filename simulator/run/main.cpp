// Plays a session between the desktop service, the desktop application and the camera server, each a process
// of its own on a private bus, and checks that every expected message was seen.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "FrameScene.h"
#include "Peers.h"
#include "Program.h"
#include "Recorder.h"
#include "Scenes.h"
#include "SessionRecord.h"

namespace {

using vel::sim::FrameOptions;
using vel::sim::Peers;
using vel::sim::Recorder;
using vel::sim::SessionRecord;

constexpr char kTraceFile[] = "out/trace.json";
constexpr char kSessionFile[] = "out/session.json";

struct Options {
    std::string directory;
    FrameOptions frames;
};

// What went wrong; nothing when both are empty.
struct Outcome {
    std::vector<std::string> missing;  // expected and not seen, a line each
    std::string problem;               // in one line
    bool isWell() const { return missing.empty() && problem.empty(); }
};

// Plays what the options ask for; stops at the first thing that goes wrong, or when the recorder is
// interrupted.
Outcome playAll(Peers& peers, const FrameOptions& frames, Recorder& recorder) {
    Outcome outcome;
    const auto send = [&](const std::string& peer, const std::string& line) {
        return peer == "service" ? peers.startService() : peers.send(peer, line);
    };
    const auto mayGoOn = [&] { return outcome.isWell() && !recorder.isInterrupted(); };
    const auto playNext = [&](const vel::sim::Scene& scene) {
        if (mayGoOn()) outcome.missing = vel::sim::play(scene, recorder, send);
    };
    if (frames.input.empty()) {
        peers.startClients(false);
        playNext(vel::sim::lateService());
        playNext(vel::sim::cameraSwitch());
        vel::sim::printFewCaptures(recorder);
        playNext(vel::sim::metadataExchange());
        recorder.printAll();
        playNext(vel::sim::liveFrames(frames.effect, frames.output));
        return outcome;
    }
    if (!peers.startService()) return {{}, "the desktop service did not start"};
    peers.startClients(frames.input == "-");
    playNext(vel::sim::registration());
    if (!mayGoOn()) return outcome;
    const auto isCameraAlive = [&] { return peers.isAlive("camera_server"); };
    outcome.problem = vel::sim::playFrames(frames, recorder, send, isCameraAlive);
    return outcome;
}

// Writes what is left of a run; false, with a line, when that fails.
bool writeFiles(const SessionRecord& session) try {
    session.writeTrace(kTraceFile);
    session.writeSession(kSessionFile);
    std::printf("\nthe trace is in %s, what a page shows again in %s\n", kTraceFile, kSessionFile);
    return true;
} catch (const std::runtime_error& error) {
    std::fprintf(stderr, "desktop_run: %s\n", error.what());
    return false;
}

// The exit code of a run that ended by itself, after a word on it.
int tell(const Outcome& outcome, bool programsEndedWell, bool hasVideo) {
    for (const std::string& expectation : outcome.missing)
        std::printf("missing: %s\n", expectation.c_str());
    if (!outcome.problem.empty()) std::fprintf(stderr, "desktop_run: %s\n", outcome.problem.c_str());
    if (!outcome.isWell() || !programsEndedWell) return 1;
    std::printf(hasVideo ? "\nevery frame was replaced\n" : "\nevery expected message was seen\n");
    return 0;
}

int play(const Options& options, Recorder& recorder) {
    SessionRecord session;
    Peers peers(options.directory, recorder, session);
    const Outcome outcome = playAll(peers, options.frames, recorder);
    if (recorder.isInterrupted()) {
        peers.interrupt();
        (void)writeFiles(session);
        std::printf("\ninterrupted\n");
        return 130;
    }
    const bool endedWell = peers.end();
    recorder.print();
    const bool hasFiles = writeFiles(session);
    return tell(outcome, endedWell && hasFiles, !options.frames.input.empty());
}

// A file's name goes to the camera server in a line.
const CLI::Validator kFileName(
    [](std::string& name) -> std::string {
        if (name.empty()) return "a file's name is needed";
        return name.find('\n') == std::string::npos ? "" : "a file's name must not hold a newline";
    },
    "");

// However it was started.
std::string ownDirectory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App cli(
        "Plays a session between the desktop service, the desktop application and the camera server on a "
        "private bus: a service that appears late, camera switches, an exchange of capture metadata, and "
        "frames that are replaced. Prints the timeline, writes out/contact-sheet.png, out/trace.json and "
        "out/session.json, and fails, naming what is missing, unless all went as expected. Leaves no process "
        "behind.");
    options.directory = ownDirectory();
    cli.add_option("--programs", options.directory,
                   "folder of the three programs (default: this program's own)")
        ->type_name("FOLDER");
    cli.add_option("--input", options.frames.input,
                   "video or picture that the frames come from, - for YUV4MPEG2 on standard input; only "
                   "frames are played")
        ->type_name("FILE")
        ->check(kFileName);
    cli.add_option("--output", options.frames.output,
                   "file for the replaced frames of stream 0, as YUV4MPEG2; not with a failure")
        ->type_name("FILE")
        ->check(kFileName);
    cli.add_option("--effect", options.frames.effect,
                   "what the application does to them: tint (default), mirror, blur or none")
        ->type_name("EFFECT")
        ->check(CLI::IsMember({"tint", "mirror", "blur", "none"}));
    cli.add_option("--patience", options.frames.patience,
                   "seconds without progress until frames are given up (default 45); an input that gives "
                   "nothing does not count")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 3600));
    return vel::sim::parseArguments(cli, argc, argv);
}

int run(const Options& options) {
    vel::sim::EndSignals signals;
    Recorder recorder;
    const vel::sim::EndSignalWatcher watcher(signals, [&] { recorder.interrupt(); });
    if (options.frames.input == "-" && isatty(STDIN_FILENO) != 0)
        throw std::invalid_argument("standard input is a terminal, no YUV4MPEG2 stream");
    const int code = play(options, recorder);
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return code;
    throw std::runtime_error("the timeline cannot be written to standard output");
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const auto code = parse(argc, argv, options)) return *code;
    return vel::sim::runProgram("desktop_run", [&] { return run(options); });
}
