#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class VelChiDesktopHelper;

namespace vel::sim {

class CameraWatch;

/**
 * A camera HAL as the library sees it: opens and closes framework cameras, and restarts a session by asking
 * whether the open camera must be switched and opening it again without a close; captures frames and has
 * their metadata exchanged with the application. One thread, except where said.
 *
 * Captures run beside, on a thread for each camera that captures: an application that hangs holds up nothing
 * but the capture of its message.
 */
class CameraServer {
  public:
    /** watch: is told of what may have changed. */
    CameraServer(VelChiDesktopHelper* helper, CameraWatch& watch);
    /** Ends the captures and waits for it. */
    ~CameraServer();

    /**
     * Carries out one line: "open N", "close N", which ends the captures of the camera, "status N" or
     * "capture N FRAMES FRAMES_PER_SECOND", which begins behind the camera's captures before it and is not
     * waited for. False for anything else and when it cannot be done, said in a line.
     */
    bool execute(const std::string& line);

    /** Waits for the captures of the open cameras. */
    void finish();
    /** Ends the captures that run, and those to come, early, and does not wait for it. Any thread. */
    void stop();

    /** Answers a request to restart the session of a framework camera. Its captures go on. */
    void restartSession(uint32_t fwkId);

  private:
    struct Camera;

    void open(uint32_t fwkId);
    void close(uint32_t fwkId);
    void retire(uint32_t fwkId);
    void printStatus(uint32_t fwkId);
    bool capture(uint32_t fwkId, uint32_t frames, uint32_t framesPerSecond);
    bool startCaptures(Camera& camera);

    VelChiDesktopHelper* const mHelper;
    CameraWatch& mWatch;
    std::mutex mLock;  // held to change what follows, and by stop()
    bool mIsStopped = false;
    std::map<uint32_t, std::unique_ptr<Camera>> mOpenCameras;  // by framework id
    std::vector<std::unique_ptr<Camera>> mClosed;              // with a capture that may still be in a call
};

}  // namespace vel::sim
