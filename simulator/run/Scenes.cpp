#include "Scenes.h"

#include <cstdio>

#include "MetadataChanges.h"

namespace vel::sim {

namespace {

constexpr uint32_t kFrames = 90;
constexpr uint32_t kFramesPerSecond = 30;

constexpr char kFilters[] =
    R"({"filter-requests":["android.control.aeMode","android.control.aeExposureCompensation",)"
    R"("android.scaler.cropRegion"],"filter-results":["android.sensor.timestamp",)"
    R"("android.sensor.exposureTime","android.sensor.sensitivity","android.sensor.frameDuration",)"
    R"("android.control.aeState","android.control.afState","android.control.awbState",)"
    R"("android.lens.focusDistance","android.lens.poseRotation","android.lens.poseTranslation",)"
    R"("android.colorCorrection.gains","android.colorCorrection.transform",)"
    R"("com.brisel.zint.velc2d.MaxStreamSize","com.brisel.zint.velc2d.SensorTemperature"]})";

// The lines of the camera server's closing table, and the line that ends it.
std::vector<Expectation> closingTable() {
    std::vector<Expectation> lines;
    for (const MetadataChange& change : metadataChanges()) {
        char counts[48];
        const uint32_t expected = change.countAmong(kFrames);
        std::snprintf(counts, sizeof(counts), "expected %3u, taken %3u", expected, expected);
        lines.push_back({"camera_server", {change.name, counts}});
    }
    lines.push_back(camera("captured " + std::to_string(kFrames) + " frames"));
    return lines;
}

}  // namespace

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

Scene metadataExchange() {
    return {
        {"the HAL opens camera 0", "camera_server", "open 0", {camera("open 0 -> camera 4")}},
        {"the application asks for metadata of every capture",
         "app",
         kFilters,
         {message("APP", "HAL", "filter-results"), reply("HAL", "APP", "OK_HAL"), app("reply OK_HAL")}},
        {"the HAL captures " + std::to_string(kFrames) +
             " frames, and the application changes some (one request and one result are shown)",
         "camera_server", "capture 0 " + std::to_string(kFrames) + " " + std::to_string(kFramesPerSecond),
         closingTable()},
        {"the application empties its filters",
         "app",
         R"({"filter-requests":[],"filter-results":[]})",
         {reply("HAL", "APP", "OK_HAL"), app("reply OK_HAL")}},
        {"the HAL closes camera 0", "camera_server", "close 0", {camera("close 0")}},
    };
}

void printFewCaptures(Recorder& recorder) {
    recorder.printOnlyFirst({"service", {"HAL -> APP", R"("request":{)"}}, 1);
    recorder.printOnlyFirst({"service", {"HAL -> APP", R"("result":{)"}}, 1);
    recorder.printOnlyFirst({"service", {"APP => HAL"}}, 2);
    recorder.printOnlyFirst({"app", {R"("frame_number":)"}}, 0);
}

}  // namespace vel::sim
