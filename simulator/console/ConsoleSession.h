#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "ConsoleServer.h"
#include "EventCollector.h"
#include "EventFeed.h"
#include "FrameKeeper.h"
#include "PeerPrograms.h"
#include "PictureFeed.h"
#include "SessionRecord.h"
#include "TaskQueue.h"

namespace vel::sim {

/**
 * The peers of a console: starts them, keeps frames and captures going, does what a page asks for, and gives
 * the pages what the peers tell. Any thread may call.
 */
class ConsoleSession {
  public:
    struct Options {
        std::string programs;  // folder of the peers
        std::string input;     // see FrameSettings
        std::string output;    // folder of what is saved
    };

    ConsoleSession(const Options& options, EventFeed& events);
    /** Ends the peers. */
    ~ConsoleSession();
    ConsoleSession(const ConsoleSession&) = delete;
    ConsoleSession& operator=(const ConsoleSession&) = delete;

    PictureFeed& pictures() { return mPictures; }

    /** Starts the peers, and waits for it. Throws std::runtime_error with one line when it fails. */
    void start();
    /** Does what a page asks for; answers at once or within seconds. */
    ConsoleServer::Answer perform(const std::string& request);
    /** Looks whether the peers still run, and does what is due; to be called a few times a second. */
    void tick();

  private:
    using Answer = ConsoleServer::Answer;

    Answer execute(const ConsoleRequest& request);
    Answer sendLine(const ConsoleRequest& request);
    Answer doFault(const ConsoleRequest& request);
    Answer save() const;

    void begin(const std::function<void()>& step);
    void onServiceReady();
    void startPeer(const std::string& peer);
    void onLine(const std::string& peer, const std::string& line);
    void onHalThere();
    void onCameraLine(const std::string& line);
    void noteEnds();
    void noteEnd(const std::string& peer);
    bool send(const std::string& peer, const std::string& line);
    void tellFault(const std::string& peer, const std::string& what, const std::string& action);
    void setPeerState(const std::string& peer, const std::string& state);
    void publishState();
    void addEvent(const std::string& line);

    const Options mOptions;
    const std::string mName;  // of the session
    EventFeed& mEvents;
    SessionRecord mRecord;
    EventCollector mCollector;
    PictureFeed mPictures;
    // Of the thread below from here on.
    std::promise<void> mStarted;  // once all peers are
    std::unique_ptr<PeerPrograms> mPeers;
    std::map<std::string, std::string> mPeerStates;
    FrameKeeper mFrames;
    std::set<std::string> mCapturing;  // cameras, by framework id
    bool mIsBegun = false;
    TaskThread mThread;  // starts the peers, which end with it; last: it uses the members above
};

}  // namespace vel::sim
