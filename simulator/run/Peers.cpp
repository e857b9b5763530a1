#include "Peers.h"

#include <unistd.h>

#include <cstdio>

namespace vel::sim {

namespace {
constexpr std::chrono::seconds kReadyLimit{10};
constexpr std::chrono::milliseconds kTick{50};
}  // namespace

Peers::Peers(const std::string& directory, Recorder& recorder)
    : mRecorder(recorder), mPrograms(directory, [this](const std::string& peer, const std::string& line) {
          mRecorder.add(peer, line);
      }) {}

Peers::~Peers() {
    end();
}

bool Peers::start(bool passStandardInput) {
    mPrograms.start("service", {{"--trace"}, {}});
    if (!waitUntilReady("service")) return false;
    // The camera server alone has it: whoever feeds it notices when that one ends.
    const android::base::unique_fd stream(passStandardInput ? dup(STDIN_FILENO) : -1);
    PeerPrograms::Start camera{{"--video-fd", std::to_string(stream.get())}, {}};
    if (stream >= 0) camera.descriptors = {stream};
    mPrograms.start("camera_server", camera);
    mPrograms.start("app", {{"-", "--change-metadata"}, {}});
    return true;
}

// False when the program ends first, or the limit passes.
bool Peers::waitUntilReady(const std::string& name) {
    const auto limit = std::chrono::steady_clock::now() + kReadyLimit;
    while (!mRecorder.waitFor({name, {"ready"}}, 0, kTick)) {
        if (!isAlive(name) || mRecorder.isInterrupted() || std::chrono::steady_clock::now() > limit)
            return false;
    }
    return true;
}

bool Peers::send(const std::string& peer, const std::string& line) {
    return mPrograms.send(peer, line);
}

bool Peers::isAlive(const std::string& peer) {
    return !mPrograms.exitCode(peer);
}

bool Peers::end() {
    bool allWell = true;
    for (const char* name : {"app", "camera_server", "service"})
        allWell = end(name) && allWell;
    return allWell;
}

bool Peers::end(const std::string& name) {
    const auto code = mPrograms.end(name);
    if (!code || *code == 0) return true;
    const bool hangs = *code == PeerPrograms::kHangs;
    std::printf("%s did not end well: %s\n", name.c_str(),
                hangs ? "it hangs" : std::to_string(*code).c_str());
    return false;
}

}  // namespace vel::sim
