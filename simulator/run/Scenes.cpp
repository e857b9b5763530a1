#include "Scenes.h"

#include <cstdio>

#include "FieldList.h"
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

constexpr char kOpened[] =
    R"({"event":{"type":"cameraOpen","id":"0","isDesktop":true,"packageName":"org.example.desktop"}})";
constexpr char kClosed[] = R"({"event":{"type":"cameraClosed","id":"0"}})";
constexpr char kProgress[] = "frames so far: ";

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

Step announceOpening() {
    return {"the application announces that camera 0 opens for the desktop",
            "app",
            kOpened,
            {message("APP", "HAL", R"("cameraOpen")"), reply("HAL", "APP", "OK_HAL"), app("reply OK_HAL")}};
}

Step announceClosing() {
    return {"the application announces the close",
            "app",
            kClosed,
            {message("APP", "HAL", R"("cameraClosed")"), reply("HAL", "APP", "OK_HAL"), app("reply OK_HAL")}};
}

Step openCamera() {
    return {"the HAL opens camera 0", "camera_server", "open 0", {camera("open 0 -> camera 4")}};
}

Step closeCamera() {
    return {"the HAL closes camera 0", "camera_server", "close 0", {camera("close 0")}};
}

Step switchCamera(const char* title, const std::vector<Expectation>& more = {}) {
    Step step{
        title,
        "app",
        R"({"general":{"originalId":0,"overrideId":2}})",
        {message("APP", "HAL", R"({"general":{"originalId":0,"overrideId":2}})"),
         reply("HAL", "APP", "OK_HAL"),
         message("HAL", "CAMERA_SERVICE", R"({"restartNeeded":{"cameraId":"0"}})"),
         reply("CAMERA_SERVICE", "HAL", "OK_CAMERA_SERVICE"),
         camera("restart of 0: camera 4 must be switched"), camera("open 0 -> camera 2"),
         message("HAL", "APP",
                 R"({"event":{"type":"sessionRestartDone"},"cameraIds":{"originalId":0,"overrideId":2}})"),
         app("received"), reply("APP", "HAL", "OK_APP")}};
    step.expectations.insert(step.expectations.end(), more.begin(), more.end());
    return step;
}

Step startFrames(const std::string& size, const std::string& more) {
    return {"the HAL has frames of " + size + " and tells the application",
            "camera_server",
            "frames 0 streams=2 fps=30 size=" + size + more,
            {camera("frames of " + size + " ready"), message("HAL", "APP", "ImgSubHalReady"),
             reply("APP", "HAL", "OK_APP")}};
}

Step configureFrames(const std::string& size, const std::string& effect) {
    return {"the application configures image substitution of " + size + ", and replaces the frames",
            "app",
            "frames size=" + size + " effect=" + effect,
            {message("APP", "HAL", "imgsub-configure-stream"),
             reply("HAL", "APP", "app-consumer-width"),
             {"service", {"APP surface-set IMG_SUB"}},
             app("frames of " + size + " configured"),
             camera(kProgress)}};
}

Step endFrames(const char* title) {
    return {title, "camera_server", "frames end", {camera("stream 1 "), camera("frames ended: well")}};
}

}  // namespace

Scene lateService() {
    return {
        {"there is no desktop service yet; the HAL opens camera 0 all the same",
         "camera_server",
         "open 0",
         {camera("open 0 -> camera 4")}},
        {"it tells what is open", "camera_server", "status 0", {camera("status 0: camera 4, original 0")}},
        {"it captures a frame that nobody hears of",
         "camera_server",
         "capture 0 1 30",
         {camera("captured 1 frames: 2 exchanges")}},
        {"the service appears; the camera service and the application register",
         "service",
         "start",
         {{"service", {"CAMERA_SERVICE registered"}}, {"service", {"APP registered"}}, app("registered")}},
        {"the HAL finds it with its next capture",
         "camera_server",
         "capture 0 1 30",
         {{"service", {"HAL registered"}},
          message("HAL", "APP", R"("request")"),
          message("HAL", "APP", R"("result")"),
          camera("captured 1 frames: 2 exchanges")}},
        closeCamera(),
    };
}

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
        announceOpening(),
        openCamera(),
        switchCamera("the application switches camera 0 to camera 2"),
        {"the application asks which camera is open",
         "app",
         R"({"get":{"what":"overrideId","originalId":0,"clientName":"org.example.desktop"}})",
         {message("APP", "HAL", R"({"get":)"), reply("HAL", "APP", R"({"overrideId":2})"),
          app(R"(reply {"overrideId":2})")}},
        closeCamera(),
        announceClosing(),
        {"the HAL opens camera 0 again, at its default",
         "camera_server",
         "open 0",
         {camera("open 0 -> camera 4")}},
        closeCamera(),
    };
}

Scene metadataExchange() {
    return {
        openCamera(),
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
        closeCamera(),
    };
}

Scene liveFrames(const std::string& effect, const std::string& output) {
    const std::string files =
        " sheet=out/contact-sheet.png" + (output.empty() ? "" : " output=" + FieldList::quoted(output));
    return {
        announceOpening(),
        openCamera(),
        startFrames("1920x1080", files),
        configureFrames("1920x1080", effect),
        switchCamera("the application switches camera 0 to camera 2 while frames flow", {camera(kProgress)}),
        {"the frames go on",
         "camera_server",
         "status 0",
         {camera("status 0: camera 2, original 0"), camera(kProgress)}},
        endFrames("the HAL ends the frames"),
        startFrames("1280x720", ""),
        configureFrames("1280x720", effect),
        {"the substitution node ends, and the frames go on without replacements",
         "camera_server",
         "frames end-node",
         {camera("stream 0: replacements stop"),
          camera("stream 1: replacements stop"),
          {"service", {"HAL surface-cleared IMG_SUB"}},
          camera("frames: the substitution node has ended"),
          camera(kProgress)}},
        endFrames("the HAL ends the frames"),
        {"the application ends them, too", "app", "frames end", {app("frames ended: ")}},
        closeCamera(),
        announceClosing(),
    };
}

void printFewCaptures(Recorder& recorder) {
    recorder.printOnlyFirst({"service", {"HAL -> APP", R"("request":{)"}}, 1);
    recorder.printOnlyFirst({"service", {"HAL -> APP", R"("result":{)"}}, 1);
    recorder.printOnlyFirst({"service", {"APP => HAL"}}, 2);
    recorder.printOnlyFirst({"app", {R"("frame_number":)"}}, 0);
}

}  // namespace vel::sim
