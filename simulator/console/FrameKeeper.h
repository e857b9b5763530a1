#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "ConsoleRequest.h"
#include "FrameView.h"

namespace vel::sim {

struct FrameSettings {
    FrameSize size{1280, 720};
    int fps = 30;
    int streams = 2;
    std::string effect = "tint";
    std::string input;  // a file that is played over and over; empty for test pictures
};

/**
 * Keeps frames going: begins them, has the application configure them when it is there, again when it or
 * the service is another one, and begins them anew when they end. Never waits: it is told the lines of the
 * camera server and of the application. One thread.
 */
class FrameKeeper {
  public:
    using Clock = std::chrono::steady_clock;
    using Send = std::function<void(const std::string& peer, const std::string& line)>;

    FrameKeeper(FrameSettings settings, Send send) : mSettings(std::move(settings)), mSend(std::move(send)) {}

    const FrameSettings& settings() const { return mSettings; }

    /** From then on. Frames that somebody began or ended by hand are left alone until then. */
    void begin();
    /** Begins anew, unless the effect alone changes. Throws std::invalid_argument when it cannot be. */
    void change(const ConsoleRequest& request);
    /** Somebody gives the camera server a command of frames. */
    void leaveToHand() { mIsKept = false; }

    /** The library is there for the application, or not while there is no service. */
    void setHalThere(bool isThere);
    void onCameraLine(const std::string& line);
    void onAppLine(const std::string& line);
    /** Another application is started, or the application was lost. */
    void onAppGone();
    /** The camera server has ended. */
    void onCameraGone();
    /** Does what is due. */
    void step();

  private:
    enum class Configured { NO, ASKED, YES };

    void beginFrames();
    void configureApp();
    void noteSize();
    bool isRefusal(const std::string& said) const;

    FrameSettings mSettings;
    const Send mSend;
    bool mIsKept = false;
    bool mIsRunning = false;
    std::string mReadySize;  // of the frames that wait for the application, or run; empty for none
    bool mIsHalThere = false;
    bool mIsAppThere = false;
    Configured mConfigured = Configured::NO;
    Clock::time_point mNotBefore;  // of the next attempt
};

}  // namespace vel::sim
