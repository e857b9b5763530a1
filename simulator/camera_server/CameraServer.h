#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "StopSignal.h"

class VelChiDesktopHelper;

namespace vel::sim {

/**
 * A camera HAL as the library sees it: opens and closes framework cameras, and restarts a session by asking
 * whether the open camera must be switched and opening it again without a close; captures frames and has
 * their metadata exchanged with the application. One thread, except where said.
 */
class CameraServer {
  public:
    explicit CameraServer(VelChiDesktopHelper* helper);

    /**
     * Carries out one line: "open N", "close N", "status N" or "capture N FRAMES FRAMES_PER_SECOND", which
     * blocks until the frames are captured. False for anything else, said in a line.
     */
    bool execute(const std::string& line);

    /** Ends a capture that runs, and those to come, early. Any thread. */
    void stop() { mStop.set(); }

    /** Answers a request to restart the session of a framework camera. */
    void restartSession(uint32_t fwkId);

  private:
    void open(uint32_t fwkId);
    void close(uint32_t fwkId);
    void printStatus(uint32_t fwkId);
    bool capture(uint32_t fwkId, uint32_t frames, uint32_t framesPerSecond);

    VelChiDesktopHelper* const mHelper;
    StopSignal mStop;
    std::map<uint32_t, uint32_t> mOpenCameras;  // camera id by framework id
};

}  // namespace vel::sim
