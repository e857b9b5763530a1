#include "CameraWatch.h"

#include <VelChiDesktopHelper.h>
#include <android/log.h>

#include <array>
#include <mutex>
#include <optional>
#include <string>

#include "DesktopHelperTestAccess.h"
#include "EventWriter.h"
#include "StartThread.h"

namespace vel::sim {

namespace {

constexpr std::chrono::milliseconds kLookEvery{10};
constexpr uint32_t kCameras = 16;

using Access = DesktopHelperTestAccess;
using Record = VelChiDesktopHelper::DesktopSettings;
using Records = std::array<Record, kCameras>;

Records read(VelChiDesktopHelper& helper) {
    std::lock_guard<std::mutex> lock(Access::settingsLock(helper));
    Records records;
    for (uint32_t fwkId = 0; fwkId < kCameras; ++fwkId)
        records[fwkId] = Access::settings(helper, fwkId);
    return records;
}

bool isEqual(const Record& one, const Record& other) {
    return one.isDesktop == other.isDesktop && one.overrideAllowed == other.overrideAllowed &&
           one.restartPending == other.restartPending && one.defaultOverrideId == other.defaultOverrideId &&
           one.requiredOverrideId == other.requiredOverrideId &&
           one.currentOverrideId == other.currentOverrideId;
}

void tell(uint32_t fwkId, const Record& record) {
    JsonObject args;
    args.add("camera", fwkId).add("default", record.defaultOverrideId);
    args.add("required", record.requiredOverrideId).add("open", record.currentOverrideId);
    args.add("desktop", record.isDesktop).add("overrideAllowed", record.overrideAllowed);
    args.add("restartPending", record.restartPending);
    events::instant(Track::CAMERAS, "camera", "camera " + std::to_string(fwkId), args);
}

void log(const __android_logger_data* data, const char* message) {
    __android_log_stderr_logger(data, message);
    if (!events::areWanted()) return;
    static const char kLetters[] = "??VDIWEFS";
    const int priority = data->priority >= 0 && data->priority <= 8 ? data->priority : 0;
    const std::string tag = data->tag != nullptr ? data->tag : "";
    JsonObject args;
    args.add("priority", std::string(1, kLetters[priority])).add("tag", tag).add("text", message);
    events::instant(Track::LOG, "log", tag, args);
}

}  // namespace

CameraWatch::CameraWatch(VelChiDesktopHelper* helper) : mHelper(helper) {
    if (events::areWanted()) mThread = startThread("the cameras' records", [this] { run(); });
}

CameraWatch::~CameraWatch() {
    mEnd.set();
    if (mThread.joinable()) mThread.join();
}

void CameraWatch::run() {
    std::optional<Records> told;
    do {
        const Records records = read(*mHelper);
        for (uint32_t fwkId = 0; fwkId < kCameras; ++fwkId) {
            if (!told || !isEqual(records[fwkId], (*told)[fwkId])) tell(fwkId, records[fwkId]);
        }
        told = records;
    } while (mEnd.waitFor(kLookEvery));
}

void tellLibraryLog() {
    if (events::areWanted()) __android_log_set_logger(log);
}

}  // namespace vel::sim
