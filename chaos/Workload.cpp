#include "Workload.h"

#include <VelChiDesktopHelper.h>

#include <algorithm>
#include <memory>

#include "Timeline.h"

namespace vel::chaos {

namespace {
constexpr std::chrono::milliseconds kReopenTick{2};
}

Workload::Workload(const Library& library) : mLibrary(library) {
    add<Capture>("answered capture", COMMANDS, 10, library);
    add<Question>("answered question", COMMANDS, 20);
    add<SubstitutedFrame>("frame replaced in stream 0", FRAMES, 20, library, 0);
    add<SubstitutedFrame>("frame replaced in stream 1", FRAMES, 20, library, 1);
    add<PreviewFrame>("preview frame sent", REST, 30, library);
    add<Registry>("switch of another camera", REST, 100, library);
    mReopener = std::thread([this] { reopenWhenAsked(); });
}

Workload::~Workload() {
    mStop.set();
    for (Activity& activity : mActivities)
        activity.thread.join();
    mReopener.join();
}

template <typename Work, typename... Arguments>
void Workload::add(const char* name, Kind kind, int pauseMs, const Arguments&... arguments) {
    const auto work = std::make_shared<Work>(arguments...);
    Activity& activity = mActivities.emplace_back();
    activity.name = name;
    activity.kind = kind;
    activity.pause = std::chrono::milliseconds(pauseMs);
    activity.attempt = [work] { return work->attempt(); };
    activity.thread = std::thread([this, &activity] { run(activity); });
}

void Workload::run(Activity& activity) {
    while (mStop.waitFor(activity.pause)) {
        const int64_t beganNs = activity.attempt();
        std::lock_guard<std::mutex> lock(mLock);
        if (beganNs != 0 && beganNs >= mSinceNs && activity.succeededNs == 0)
            activity.succeededNs = sim::steadyNowNs();
    }
}

void Workload::mark(int64_t sinceNs) {
    std::lock_guard<std::mutex> lock(mLock);
    mSinceNs = sinceNs;
    for (Activity& activity : mActivities)
        activity.succeededNs = 0;
}

std::string Workload::missing(int kinds) const {
    std::string missing;
    std::lock_guard<std::mutex> lock(mLock);
    for (const Activity& activity : mActivities) {
        if ((activity.kind & kinds) == 0 || activity.succeededNs != 0) continue;
        missing += (missing.empty() ? "" : ", ") + std::string(activity.name);
    }
    return missing;
}

int64_t Workload::succeededNs(int kinds) const {
    int64_t lastNs = 0;
    std::lock_guard<std::mutex> lock(mLock);
    for (const Activity& activity : mActivities) {
        if ((activity.kind & kinds) != 0) lastNs = std::max(lastNs, activity.succeededNs);
    }
    return lastNs;
}

void Workload::reopenWhenAsked() {
    while (mStop.waitFor(kReopenTick)) {
        if (!mIsReopening) continue;
        mLibrary.meter.measure("onHalClose (desktop)", MayWait::FOR_PEERS,
                               [&] { mLibrary.helper.onHalClose(kDesktopCamera); });
        uint32_t cameraId = kDesktopCamera;
        mLibrary.meter.measure("updateCameraIdOnHalOpen", MayWait::NEVER,
                               [&] { mLibrary.helper.updateCameraIdOnHalOpen(cameraId); });
        mIsReopening = false;
    }
}

}  // namespace vel::chaos
