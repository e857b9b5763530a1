#pragma once

#include <string>

#include "PeerPrograms.h"
#include "Recorder.h"

namespace vel::sim {

/**
 * The desktop service, the camera server and the application on a bus of their own. All end with this
 * object.
 */
class Peers {
  public:
    /** Starts the bus. The programs are looked for in the folder; their output goes to the recorder. */
    Peers(const std::string& directory, Recorder& recorder);
    ~Peers();

    /**
     * Starts the programs; false when the service does not become ready. The camera server gets this
     * process's standard input as its stream of video when asked for.
     */
    bool start(bool passStandardInput);
    /** False once the peer has ended by itself. */
    bool isAlive(const std::string& peer);

    /** Writes a line to a peer's input ("app" or "camera_server"); false when it no longer reads. */
    bool send(const std::string& peer, const std::string& line);

    /** Ends the peers as a person would; true when each ended by itself and well. */
    bool end();

    /** Ends the peers at once, whatever they are doing. */
    void interrupt() { mPrograms.interrupt(); }

  private:
    bool waitUntilReady(const std::string& name);
    bool end(const std::string& name);

    Recorder& mRecorder;
    PeerPrograms mPrograms;
};

}  // namespace vel::sim
