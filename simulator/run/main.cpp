// Plays a camera switch between the desktop service, the desktop application and the camera server, each a
// process of its own on a private bus, and checks that every expected message was seen.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "CameraSwitch.h"
#include "ChildProcess.h"
#include "PrivateBus.h"
#include "Program.h"
#include "Recorder.h"
#include "Timeline.h"

namespace {

using vel::sim::ChildProcess;
using vel::sim::PrivateBus;
using vel::sim::Recorder;

constexpr std::chrono::seconds kReadyLimit{10};
constexpr std::chrono::seconds kEndLimit{5};

// The three peers and their bus. All of them end with this object.
class Peers {
  public:
    Peers(const std::string& directory, Recorder& recorder) : mDirectory(directory), mRecorder(recorder) {}
    ~Peers() { end(); }

    bool start() {
        start("service", "desktop_service", {"--trace"});
        if (!mRecorder.waitFor({"service", {"ready"}}, 0, kReadyLimit)) return false;
        start("camera_server", "camera_server", {});
        start("app", "desktop_app", {"-"});
        return true;
    }

    bool send(const std::string& peer, const std::string& line) {
        return mChildren.at(peer)->writeLine(line);
    }

    // Ends the peers as a person would; true when each ended by itself and well.
    bool end() {
        bool allWell = true;
        for (const char* peer : {"app", "camera_server", "service"}) {
            const auto child = mChildren.find(peer);
            if (child == mChildren.end()) continue;
            child->second->closeInput();
            if (child->first == "service") child->second->kill(SIGTERM);
            const auto code = child->second->wait(kEndLimit);
            if (code != 0) {
                std::printf("%s did not end well: %s\n", peer,
                            code ? std::to_string(*code).c_str() : "it hangs");
                allWell = false;
            }
            mChildren.erase(child);
        }
        return allWell;
    }

  private:
    void start(const std::string& name, const std::string& program, std::vector<std::string> arguments) {
        ChildProcess::Options options;
        options.command = {mDirectory + "/" + program, "--bus", mBus.address(), "--time-origin",
                           std::to_string(mOriginNs)};
        options.command.insert(options.command.end(), arguments.begin(), arguments.end());
        options.onLine = [this, name](const std::string& line) { mRecorder.add(name, line); };
        mChildren[name] = std::make_unique<ChildProcess>(std::move(options));
    }

    const std::string mDirectory;
    Recorder& mRecorder;
    const int64_t mOriginNs = vel::sim::steadyNowNs();
    PrivateBus mBus;
    std::map<std::string, std::unique_ptr<ChildProcess>> mChildren;
};

int run(const std::string& directory, Recorder& recorder) {
    Peers peers(directory, recorder);
    if (!peers.start()) {
        recorder.print();
        std::printf("the desktop service did not start\n");
        return 1;
    }
    const auto missing = vel::sim::play(
        vel::sim::cameraSwitchSteps(), recorder,
        [&](const std::string& peer, const std::string& line) { return peers.send(peer, line); });
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
        "Plays a camera switch between the desktop service, the desktop application and the camera server on "
        "a "
        "private bus, prints its timeline, and fails, naming what is missing, unless every expected message "
        "was "
        "seen. Leaves no process behind.");
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
