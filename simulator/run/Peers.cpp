#include "Peers.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "Program.h"
#include "TraceEvent.h"

namespace vel::sim {

namespace {
constexpr std::chrono::seconds kReadyLimit{10};
constexpr std::chrono::milliseconds kTick{50};
}  // namespace

Peers::Peers(const std::string& directory, Recorder& recorder, SessionRecord& session)
    : mRecorder(recorder),
      mSession(session),
      mEvents([this](const std::string& line) { (void)mSession.add(line); }),
      mPrograms(directory,
                [this](const std::string& peer, const std::string& line) { mRecorder.add(peer, line); }) {
    setTimeOrigin(mPrograms.originNs());
}

Peers::~Peers() {
    end();
}

bool Peers::startService() {
    start("service", {"--trace"});
    return waitUntilReady("service");
}

void Peers::startClients(bool passStandardInput) {
    // The camera server alone has it: whoever feeds it notices when that one ends.
    const android::base::unique_fd stream(passStandardInput ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0) : -1);
    start("camera_server", {"--video-fd", std::to_string(stream.get())},
          stream >= 0 ? std::vector<int>{stream} : std::vector<int>{});
    start("app", {"-", "--change-metadata"});
}

void Peers::start(const std::string& peer, std::vector<std::string> arguments, std::vector<int> descriptors) {
    const android::base::unique_fd events = mEvents.open();
    arguments.insert(arguments.end(), {"--events", std::to_string(events.get())});
    descriptors.push_back(events);
    mPrograms.start(peer, {std::move(arguments), std::move(descriptors)});
    tell(peer, "started");
}

void Peers::tell(const std::string& peer, const std::string& action) {
    (void)mSession.add(faultLine(peer, action, action));
}

// False when the program ends first, or the limit passes.
bool Peers::waitUntilReady(const std::string& peer) {
    const auto limit = std::chrono::steady_clock::now() + kReadyLimit;
    while (!mRecorder.waitFor({peer, {"ready"}}, 0, kTick)) {
        if (!isAlive(peer) || mRecorder.isInterrupted() || std::chrono::steady_clock::now() > limit)
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
    for (const char* peer : {"app", "camera_server", "service"})
        allWell = end(peer) && allWell;
    mEvents.finish();
    return allWell;
}

bool Peers::end(const std::string& peer) {
    const auto code = mPrograms.end(peer);
    if (!code) return true;
    tell(peer, "ended");
    if (*code == 0) return true;
    const bool hangs = *code == PeerPrograms::kHangs;
    std::printf("%s did not end well: %s\n", peer.c_str(),
                hangs ? "it hangs" : std::to_string(*code).c_str());
    return false;
}

void Peers::interrupt() {
    mPrograms.interrupt();
    mEvents.finish();
}

}  // namespace vel::sim
