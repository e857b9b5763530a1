#include "Peers.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "Program.h"
#include "Timeline.h"
#include "TraceEvent.h"

namespace vel::sim {

namespace {
constexpr std::chrono::seconds kReadyLimit{10};
constexpr std::chrono::seconds kEndLimit{5};
constexpr std::chrono::milliseconds kTick{50};
}  // namespace

Peers::Peers(const std::string& directory, Recorder& recorder, SessionRecord& session)
    : mDirectory(directory),
      mRecorder(recorder),
      mSession(session),
      mEvents([&](const std::string& line) { (void)session.add(line); }) {
    setTimeOrigin(steadyNowNs());
}

Peers::~Peers() {
    end();
}

bool Peers::startService() {
    start("service", "desktop_service", {"--trace"});
    return waitUntilReady("service");
}

void Peers::startClients(bool passStandardInput) {
    // The camera server alone has it: whoever feeds it notices when that one ends.
    const android::base::unique_fd stream(passStandardInput ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0) : -1);
    start("camera_server", "camera_server", {"--video-fd", std::to_string(stream.get())}, stream);
    start("app", "desktop_app", {"-", "--change-metadata"});
}

void Peers::start(const std::string& name, const std::string& program,
                  const std::vector<std::string>& arguments, int inherited) {
    const android::base::unique_fd events = mEvents.open();
    ChildProcess::Options options;
    options.command = {mDirectory + "/" + program,
                       "--bus",
                       mBus.address(),
                       "--time-origin",
                       std::to_string(timeOriginNs()),
                       "--events",
                       std::to_string(events.get())};
    options.command.insert(options.command.end(), arguments.begin(), arguments.end());
    options.descriptors = {events.get()};
    if (inherited >= 0) options.descriptors.push_back(inherited);
    options.onLine = [this, name](const std::string& line) { mRecorder.add(name, line); };
    mChildren[name] = std::make_unique<ChildProcess>(std::move(options));
    tell(name, "started");
}

void Peers::tell(const std::string& name, const std::string& action) {
    TraceEvent event;
    event.category = "fault";
    event.name = name + " " + action;
    event.track = Track::FAULTS;
    event.timeNs = steadyNowNs();
    event.args.add("peer", name).add("action", action);
    (void)mSession.add(event.line());
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
    return mChildren.at(peer)->writeLine(line);
}

bool Peers::isAlive(const std::string& peer) {
    return !mChildren.at(peer)->wait(std::chrono::milliseconds(0));
}

bool Peers::end() {
    bool allWell = true;
    for (const char* name : {"app", "camera_server", "service"})
        allWell = end(name) && allWell;
    mEvents.finish();
    return allWell;
}

bool Peers::end(const std::string& name) {
    const auto entry = mChildren.find(name);
    if (entry == mChildren.end()) return true;
    const std::unique_ptr<ChildProcess> child = std::move(entry->second);
    mChildren.erase(entry);

    child->closeInput();  // ends the peers that read commands
    if (name == "service") child->kill(SIGTERM);
    const auto code = child->wait(kEndLimit);
    if (code) tell(name, "ended");
    if (code == 0) return true;
    if (!code) {  // it may still take back what it wrote
        child->kill(SIGTERM);
        (void)child->wait(kEndLimit);
    }
    std::printf("%s did not end well: %s\n", name.c_str(), code ? std::to_string(*code).c_str() : "it hangs");
    return false;
}

// The camera server first: it takes its output back, and without it nobody misses the others.
void Peers::interrupt() {
    for (const char* name : {"camera_server", "app", "service"}) {
        const auto entry = mChildren.find(name);
        if (entry == mChildren.end()) continue;
        entry->second->kill(SIGTERM);
        (void)entry->second->wait(kEndLimit);
        mChildren.erase(entry);
        tell(name, "ended");
    }
    mEvents.finish();
}

}  // namespace vel::sim
