#pragma once

#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <functional>
#include <optional>
#include <string>

// What the transport's tests and the processes that they start have in common.

using korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;

struct Outcome {
    bool isOk = false;
    bool isDead = false;
    std::optional<std::string> reply;  // empty: the reply function was not called
};

inline std::string bytesOf(const android::hardware::hidl_string& text) {
    return {text.c_str(), text.size()};
}

inline Outcome send(const android::sp<ICameraDesktop>& service, ClientType type, const std::string& command) {
    Outcome outcome;
    const auto status = service->sendCommand(
        type, command, [&](const android::hardware::hidl_string& reply) { outcome.reply = bytesOf(reply); });
    outcome.isDead = status.isDeadObject();
    outcome.isOk = status.isOk();
    return outcome;
}

// A callback that answers each command with what the function makes of it.
class FunctionCallback : public ICameraDesktopCallback {
  public:
    using Answer = std::function<std::string(const std::string& command)>;
    explicit FunctionCallback(Answer answer) : mAnswer(std::move(answer)) {}

    android::hardware::Return<void> onCommand(const android::hardware::hidl_string& command,
                                              onCommand_cb _hidl_cb) override {
        _hidl_cb(mAnswer(bytesOf(command)));
        return android::hardware::Void();
    }

  private:
    const Answer mAnswer;
};

// A process of its own at the other end. It obeys the lines of its input and says what came of them:
//
//   find               "found" or "null"
//   first              whether the service that was found first answers: "first lives" or "first dead"
//   register           registers a callback for the application; "registered"
//   link               "linked"; when the service dies later, "died"
//   send <text>        sends to the application from a thread of its own: "sending", then "sent ok",
//                      "sent dead" or "sent failed"
//   bus <address>      the bus of later look-ups; "bus set"
//   exit               leaves main() at once
//
// The callback answers a command with the command itself, save "hang", which it says and never answers, and
// "ask back", which it answers with what the HAL replies to "question".
int runDesktopPeer();
