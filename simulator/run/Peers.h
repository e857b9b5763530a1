#pragma once

#include <string>
#include <vector>

#include "EventCollector.h"
#include "PeerPrograms.h"
#include "Recorder.h"
#include "SessionRecord.h"

namespace vel::sim {

/**
 * The desktop service, the camera server and the application on a bus of their own. All end with this
 * object.
 */
class Peers {
  public:
    /**
     * Starts the bus; the session's times count from now. The programs are looked for in the folder; their
     * output goes to the recorder, their events to the session.
     */
    Peers(const std::string& directory, Recorder& recorder, SessionRecord& session);
    ~Peers();

    /** Starts the service; false when it does not become ready. */
    bool startService();
    /**
     * Starts the camera server and the application, which wait for the service. The camera server gets this
     * process's standard input as its stream of video when asked for.
     */
    void startClients(bool passStandardInput);
    /** False once the peer has ended by itself. */
    bool isAlive(const std::string& peer);

    /** Writes a line to a peer's input ("app" or "camera_server"); false when it no longer reads. */
    bool send(const std::string& peer, const std::string& line);

    /** Ends the peers as a person would; true when each ended by itself and well. The session is complete. */
    bool end();

    /** Ends the peers at once, whatever they are doing. The session is complete. */
    void interrupt();

  private:
    void start(const std::string& peer, std::vector<std::string> arguments,
               std::vector<int> descriptors = {});
    void tell(const std::string& peer, const std::string& action);
    bool waitUntilReady(const std::string& peer);
    bool end(const std::string& peer);

    Recorder& mRecorder;
    SessionRecord& mSession;
    EventCollector mEvents;
    PeerPrograms mPrograms;
};

}  // namespace vel::sim
