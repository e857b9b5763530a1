#include "CameraSwitch.h"

#include <cstdio>

namespace vel::sim {

namespace {

constexpr std::chrono::seconds kLimit{10};

// A message that the service forwarded, and the reply that it brought back.
Expectation message(const std::string& from, const std::string& to, const std::string& text) {
    return {"service", {from + " -> " + to, text}};
}
Expectation reply(const std::string& from, const std::string& to, const std::string& text) {
    return {"service", {from + " => " + to, text}};
}
Expectation camera(const std::string& text) {
    return {"camera_server", {text}};
}
Expectation app(const std::string& text) {
    return {"app", {text}};
}

}  // namespace

std::vector<Step> cameraSwitchSteps() {
    return {
        {"the peers register",
         "",
         "",
         {{"service", {"HAL registered"}},
          {"service", {"CAMERA_SERVICE registered"}},
          {"service", {"APP registered"}}}},
        {"the application announces that camera 0 opens for the desktop",
         "app",
         R"({"event":{"type":"cameraOpen","id":"0","isDesktop":true,"packageName":"org.example.desktop"}})",
         {message("APP", "HAL", R"("cameraOpen")"), reply("HAL", "APP", "OK_HAL"), app("reply OK_HAL")}},
        {"the HAL opens camera 0", "camera_server", "open 0", {camera("open 0 -> camera 4")}},
        {"the application switches camera 0 to camera 2",
         "app",
         R"({"general":{"originalId":0,"overrideId":2}})",
         {message("APP", "HAL", R"({"general":{"originalId":0,"overrideId":2}})"),
          reply("HAL", "APP", "OK_HAL"),
          message("HAL", "CAMERA_SERVICE", R"({"restartNeeded":{"cameraId":"0"}})"),
          reply("CAMERA_SERVICE", "HAL", "OK_CAMERA_SERVICE"),
          camera("restart of 0: camera 4 must be switched"), camera("open 0 -> camera 2"),
          message("HAL", "APP",
                  R"({"event":{"type":"sessionRestartDone"},"cameraIds":{"originalId":0,"overrideId":2}})"),
          app("received"), reply("APP", "HAL", "OK_APP")}},
        {"the application asks which camera is open",
         "app",
         R"({"get":{"what":"overrideId","originalId":0,"clientName":"org.example.desktop"}})",
         {message("APP", "HAL", R"({"get":)"), reply("HAL", "APP", R"({"overrideId":2})"),
          app(R"(reply {"overrideId":2})")}},
        {"the HAL closes camera 0", "camera_server", "close 0", {camera("close 0")}},
        {"the application announces the close",
         "app",
         R"({"event":{"type":"cameraClosed","id":"0"}})",
         {message("APP", "HAL", R"("cameraClosed")"), reply("HAL", "APP", "OK_HAL")}},
        {"the HAL opens camera 0 again, at its default",
         "camera_server",
         "open 0",
         {camera("open 0 -> camera 4")}},
        {"the HAL closes camera 0", "camera_server", "close 0", {camera("close 0")}},
    };
}

std::vector<std::string> play(const std::vector<Step>& steps, Recorder& recorder,
                              const std::function<bool(const std::string&, const std::string&)>& send) {
    std::vector<std::string> missing;
    for (const Step& step : steps) {
        const size_t mark = step.command.empty() ? 0 : recorder.mark();
        std::printf("\n-- %s\n", step.title.c_str());
        if (!step.command.empty() && !send(step.actor, step.command)) {
            missing.push_back(step.actor + " takes no more commands, at: " + step.title);
            return missing;
        }
        for (const Expectation& expectation : step.expectations) {
            if (recorder.waitFor(expectation, mark, kLimit)) continue;
            if (!recorder.isInterrupted()) missing.push_back(expectation.text());
            break;
        }
        recorder.print();
        if (!missing.empty() || recorder.isInterrupted()) return missing;
    }
    return missing;
}

}  // namespace vel::sim
