#include "CameraSwitch.h"

namespace vel::sim {

Scene registration() {
    return {
        {"the peers register",
         "",
         "",
         {{"service", {"HAL registered"}},
          {"service", {"CAMERA_SERVICE registered"}},
          {"service", {"APP registered"}}}},
    };
}

Scene cameraSwitch() {
    return {
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
         {message("APP", "HAL", R"("cameraClosed")"), reply("HAL", "APP", "OK_HAL"), app("reply OK_HAL")}},
        {"the HAL opens camera 0 again, at its default",
         "camera_server",
         "open 0",
         {camera("open 0 -> camera 4")}},
        {"the HAL closes camera 0", "camera_server", "close 0", {camera("close 0")}},
    };
}

}  // namespace vel::sim
