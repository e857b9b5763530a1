#include "ConsoleSession.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <future>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "JsonObject.h"
#include "ParsedEvent.h"
#include "Program.h"
#include "TraceEvent.h"

namespace vel::sim {

namespace {

constexpr std::chrono::seconds kAnswerLimit{10};
constexpr char kCaptures[] = " 1000000 10";  // so many that they last, a second

std::string randomName() {
    std::random_device random;
    char name[9];
    std::snprintf(name, sizeof(name), "%08x", random());
    return name;
}

// Whose newest event a new page gets, however old it is.
std::string keptAs(const ParsedEvent& event) {
    static const std::set<std::string> categories = {"camera", "figures", "metadata", "frames"};
    return categories.count(event.category) != 0 ? event.category + " " + event.name : "";
}

// The framework id in "open 0 -> camera 4" or "close 0" behind the stamp; empty in any other line.
std::string cameraIn(const std::string& line, const std::string& verb) {
    const size_t at = line.find("] " + verb + " ");
    if (at == std::string::npos) return "";
    const size_t start = at + verb.size() + 3;
    return line.substr(start, line.find(' ', start) - start);
}

}  // namespace

ConsoleSession::ConsoleSession(const Options& options, EventFeed& events)
    : mOptions(options),
      mName(randomName()),
      mEvents(events),
      mCollector([this](const std::string& line) { addEvent(line); }),
      mPictures([this](const std::string& streams) {
          mThread.tasks().post([this, streams] { send("camera_server", "pictures " + streams); });
      }),
      mFrames(FrameSettings{{1280, 720}, 30, options.input.empty() ? 2 : 1, "tint", options.input},
              [this](const std::string& peer, const std::string& line) { send(peer, line); }),
      mThread("the session") {}

ConsoleSession::~ConsoleSession() {
    mThread.tasks().post([this] { mPeers.reset(); });
    mThread.finish();
}

void ConsoleSession::start() {
    mThread.tasks().post([this] {
        begin([this] {
            mPeers = std::make_unique<PeerPrograms>(
                mOptions.programs, [this](const std::string& peer, const std::string& line) {
                    mThread.tasks().post([this, peer, line] { onLine(peer, line); });
                });
            setTimeOrigin(mPeers->originNs());
            startPeer("service");
        });
    });
    std::future<void> started = mStarted.get_future();
    if (started.wait_for(kAnswerLimit) != std::future_status::ready)
        throw std::runtime_error("the desktop service did not start");
    started.get();
}

// Does a step of the start, which fails with it.
void ConsoleSession::begin(const std::function<void()>& step) {
    try {
        step();
    } catch (...) {
        mStarted.set_exception(std::current_exception());
    }
}

// The library looks for a service when it is loaded, and then when a camera is opened.
void ConsoleSession::onServiceReady() {
    if (mPeerStates.count("app") != 0) return;  // it is another service
    begin([this] {
        startPeer("camera_server");
        startPeer("app");
        mStarted.set_value();
    });
}

void ConsoleSession::startPeer(const std::string& peer) {
    const android::base::unique_fd events = mCollector.open();
    PeerPrograms::Start start{{"--events", std::to_string(events)}, {events}};
    android::base::unique_fd pictures[2];
    if (peer == "service") start.arguments.emplace_back("--trace");
    if (peer == "app") start.arguments.insert(start.arguments.end(), {"--quiet", "-"});
    if (peer == "camera_server") {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
            throw std::system_error(errno, std::generic_category(), "no socket for the pictures");
        pictures[0].reset(ends[0]);
        pictures[1].reset(ends[1]);
        start.arguments.insert(start.arguments.end(), {"--pictures", std::to_string(ends[1])});
        start.descriptors.push_back(ends[1]);
    }
    mPeers->start(peer, start);
    if (pictures[0] >= 0) mPictures.readFrom(std::move(pictures[0]));
    setPeerState(peer, "running");
}

void ConsoleSession::onLine(const std::string& peer, const std::string& line) {
    if (peer == "service" && line.find("SERVICE ready") != std::string::npos) onServiceReady();
    if (peer == "service" && line.find("HAL registered") != std::string::npos) onHalThere();
    if (peer == "camera_server") onCameraLine(line);
    if (peer == "app") mFrames.onAppLine(line);
}

void ConsoleSession::onHalThere() {
    mFrames.setHalThere(true);
    if (std::exchange(mIsBegun, true)) return;
    send("camera_server", "open 0");  // opened without the library's link, it would be another camera
    mFrames.begin();
}

// A camera that is opened captures, so that there is metadata to see.
void ConsoleSession::onCameraLine(const std::string& line) {
    const std::string opened = cameraIn(line, "open");
    if (!opened.empty() && mCapturing.insert(opened).second)
        send("camera_server", "capture " + opened + kCaptures);
    mCapturing.erase(cameraIn(line, "close"));
    mFrames.onCameraLine(line);
    publishState();
}

void ConsoleSession::tick() {
    mThread.tasks().post([this] {
        noteEnds();
        mFrames.step();
    });
}

void ConsoleSession::noteEnds() {
    for (const auto& [peer, state] : std::map<std::string, std::string>(mPeerStates)) {
        if (state == "ended" || !mPeers->exitCode(peer)) continue;
        tellFault(peer, "ended", "end");
        noteEnd(peer);
    }
}

void ConsoleSession::noteEnd(const std::string& peer) {
    setPeerState(peer, "ended");
    if (peer == "app") mFrames.onAppGone();
    if (peer == "camera_server") mFrames.onCameraGone();
    if (peer == "service") mFrames.setHalThere(false);
}

// False when the peer takes no line now: it has ended, or was stopped long ago.
bool ConsoleSession::send(const std::string& peer, const std::string& line) {
    return mPeers != nullptr && mPeerStates[peer] != "ended" && mPeers->hasRoom(peer) &&
           mPeers->send(peer, line);
}

ConsoleServer::Answer ConsoleSession::perform(const std::string& text) try {
    const auto request = std::make_shared<const ConsoleRequest>(readConsoleRequest(text));
    auto answer = std::make_shared<std::promise<Answer>>();
    std::future<Answer> future = answer->get_future();
    mThread.tasks().post([this, request, answer = std::move(answer)] {
        try {
            answer->set_value(execute(*request));
        } catch (const std::invalid_argument& error) {
            answer->set_value(errorAnswer(400, error.what()));
        } catch (const std::exception& error) {
            answer->set_value(errorAnswer(500, error.what()));
        }
    });
    if (future.wait_for(kAnswerLimit) == std::future_status::ready) return future.get();
    return errorAnswer(503, "the console is busy");
} catch (const std::invalid_argument& error) {
    return errorAnswer(400, error.what());
} catch (const std::future_error&) {
    return errorAnswer(503, "the console ends");
}

ConsoleServer::Answer ConsoleSession::execute(const ConsoleRequest& request) {
    switch (request.kind) {
        case ConsoleRequest::Kind::LINE:
            return sendLine(request);
        case ConsoleRequest::Kind::FRAMES:
            mFrames.change(request);
            publishState();
            return okAnswer();
        case ConsoleRequest::Kind::FAULT:
            return doFault(request);
        case ConsoleRequest::Kind::SAVE:
            return save();
    }
    return errorAnswer(500, "an unknown request");
}

ConsoleServer::Answer ConsoleSession::sendLine(const ConsoleRequest& request) {
    if (mPeerStates[request.peer] == "ended") return errorAnswer(409, "the peer does not run");
    if (request.peer == "camera_server" && request.line.rfind("frames", 0) == 0) mFrames.leaveToHand();
    if (!send(request.peer, request.line)) return errorAnswer(503, "the peer takes no more lines");
    return okAnswer();
}

ConsoleServer::Answer ConsoleSession::doFault(const ConsoleRequest& request) {
    const std::string& peer = request.peer;
    const std::string& action = request.action;
    const bool runs = mPeerStates[peer] != "ended";
    if (!runs && action != "restart") return errorAnswer(409, "the peer does not run");
    if (action == "stop" || action == "continue") {
        mPeers->kill(peer, action == "stop" ? SIGSTOP : SIGCONT);
        setPeerState(peer, action == "stop" ? "stopped" : "running");
        tellFault(peer, action == "stop" ? "stopped" : "continued", action);
        return okAnswer();
    }
    if (runs) {
        mPeers->killAndWait(peer);
        tellFault(peer, "killed", action);
        noteEnd(peer);
    }
    if (action == "restart") {
        startPeer(peer);
        tellFault(peer, "started", action);
    }
    return okAnswer();
}

ConsoleServer::Answer ConsoleSession::save() const {
    const std::filesystem::path folder = mOptions.output;
    const std::string trace = folder / "trace.json";
    const std::string session = folder / "session.json";
    mRecord.writeTrace(trace);
    mRecord.writeSession(session);
    return {200, JsonObject().add("ok", true).add("trace", trace).add("session", session).text()};
}

void ConsoleSession::tellFault(const std::string& peer, const std::string& what, const std::string& action) {
    addEvent(faultLine(peer, what, action));
}

void ConsoleSession::addEvent(const std::string& line) {
    ParsedEvent event;
    if (!mRecord.add(line) || !event.parse(line) || !event.isForPage()) return;
    mEvents.add(line, keptAs(event));
}

void ConsoleSession::setPeerState(const std::string& peer, const std::string& state) {
    mPeerStates[peer] = state;
    publishState();
}

void ConsoleSession::publishState() {
    JsonObject peers;
    for (const auto& [peer, state] : mPeerStates)
        peers.add(peer.c_str(), state);
    const FrameSettings& frames = mFrames.settings();
    JsonObject settings;
    settings.add("size", std::to_string(frames.size.width) + "x" + std::to_string(frames.size.height))
        .add("fps", frames.fps)
        .add("streams", frames.streams)
        .add("effect", frames.effect)
        .add("camera", 0);
    mEvents.setState(JsonObject()
                         .add("session", mName)
                         .add("replay", false)
                         .addJson("peers", peers.text())
                         .addJson("settings", settings.text())
                         .text());
}

}  // namespace vel::sim
