#include "PeerPrograms.h"

#include <csignal>
#include <utility>

namespace vel::sim {

namespace {
constexpr std::chrono::seconds kEndLimit{5};

const std::map<std::string, std::string> kPrograms = {
    {"service", "desktop_service"}, {"camera_server", "camera_server"}, {"app", "desktop_app"}};
}  // namespace

PeerPrograms::PeerPrograms(const std::string& directory, OnLine onLine)
    : mDirectory(directory), mOnLine(std::move(onLine)) {}

ChildProcess* PeerPrograms::find(const std::string& peer) const {
    const auto child = mChildren.find(peer);
    return child == mChildren.end() ? nullptr : child->second.get();
}

void PeerPrograms::start(const std::string& peer, const Start& start) {
    mChildren.erase(peer);
    ChildProcess::Options options;
    options.command = {mDirectory + "/" + kPrograms.at(peer), "--bus", mBus.address(), "--time-origin",
                       std::to_string(mOriginNs)};
    options.command.insert(options.command.end(), start.arguments.begin(), start.arguments.end());
    options.descriptors = start.descriptors;
    options.onLine = [this, peer](const std::string& line) { mOnLine(peer, line); };
    mChildren[peer] = std::make_unique<ChildProcess>(std::move(options));
}

std::optional<int> PeerPrograms::exitCode(const std::string& peer) {
    ChildProcess* const child = find(peer);
    return child == nullptr ? std::nullopt : child->wait(std::chrono::milliseconds(0));
}

bool PeerPrograms::send(const std::string& peer, const std::string& line) {
    ChildProcess* const child = find(peer);
    return child != nullptr && child->writeLine(line);
}

bool PeerPrograms::hasRoom(const std::string& peer) const {
    const ChildProcess* const child = find(peer);
    return child != nullptr && child->hasRoom();
}

void PeerPrograms::kill(const std::string& peer, int signal) {
    if (ChildProcess* const child = find(peer)) child->kill(signal);
}

void PeerPrograms::killAndWait(const std::string& peer) {
    kill(peer, SIGKILL);
    if (ChildProcess* const child = find(peer)) (void)child->wait();
}

std::optional<int> PeerPrograms::end(const std::string& peer) {
    auto child = mChildren.extract(peer);
    if (child.empty()) return std::nullopt;
    child.mapped()->closeInput();  // ends the peers that read commands
    if (peer == "service") child.mapped()->kill(SIGTERM);
    const auto code = child.mapped()->wait(kEndLimit);
    if (code) return code;
    child.mapped()->kill(SIGTERM);  // it may still take back what it wrote
    (void)child.mapped()->wait(kEndLimit);
    return kHangs;
}

// The camera server first: it takes its output back, and without it nobody misses the others.
void PeerPrograms::interrupt() {
    for (const char* peer : {"camera_server", "app", "service"})
        kill(peer, SIGCONT);
    for (const char* peer : {"camera_server", "app", "service"}) {
        kill(peer, SIGTERM);
        if (ChildProcess* const child = find(peer)) (void)child->wait(kEndLimit);
        mChildren.erase(peer);
    }
}

}  // namespace vel::sim
