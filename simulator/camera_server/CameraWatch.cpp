#include "CameraWatch.h"

#include <android/log.h>

#include <string>
#include <tuple>

#include "DesktopHelperTestAccess.h"
#include "EventWriter.h"
#include "StartThread.h"

namespace vel::sim {

namespace {

constexpr std::chrono::milliseconds kLookEvery{10};
using Access = DesktopHelperTestAccess;

void log(const __android_logger_data* data, const char* message) {
    // What a terminal gets without a logger of one's own.
    if (data->priority >= ANDROID_LOG_INFO) __android_log_stderr_logger(data, message);
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
    if (!events::areWanted()) return;
    mThread = startThread("the cameras' records", [this] {
        do {
            look();
        } while (mEnd.waitFor(kLookEvery));
    });
}

CameraWatch::~CameraWatch() {
    mEnd.set();
    if (mThread.joinable()) mThread.join();
}

void CameraWatch::look() {
    if (!events::areWanted()) return;
    std::lock_guard<std::mutex> lock(mLock);
    const Records records = read();
    for (uint32_t fwkId = 0; fwkId < records.size(); ++fwkId) {
        if (!mTold || !isEqual(records[fwkId], (*mTold)[fwkId])) tell(fwkId, records[fwkId]);
    }
    mTold = records;
}

CameraWatch::Records CameraWatch::read() const {
    std::lock_guard<std::mutex> lock(Access::settingsLock(*mHelper));
    Records records;
    for (uint32_t fwkId = 0; fwkId < records.size(); ++fwkId)
        records[fwkId] = Access::settings(*mHelper, fwkId);
    return records;
}

bool CameraWatch::isEqual(const Record& one, const Record& other) {
    const auto fields = [](const Record& record) {
        return std::tie(record.isDesktop, record.overrideAllowed, record.restartPending,
                        record.defaultOverrideId, record.requiredOverrideId, record.currentOverrideId);
    };
    return fields(one) == fields(other);
}

void CameraWatch::tell(uint32_t fwkId, const Record& record) {
    JsonObject args;
    args.add("camera", fwkId).add("default", record.defaultOverrideId);
    args.add("required", record.requiredOverrideId).add("open", record.currentOverrideId);
    args.add("desktop", record.isDesktop).add("overrideAllowed", record.overrideAllowed);
    args.add("restartPending", record.restartPending);
    events::instant(Track::CAMERAS, "camera", "camera " + std::to_string(fwkId), args);
}

void tellLibraryLog() {
    if (!events::areWanted()) return;
    __android_log_set_logger(log);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

}  // namespace vel::sim
