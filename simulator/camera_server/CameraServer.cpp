#include "CameraServer.h"

#include <VelChiDesktopHelper.h>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <system_error>

#include "CameraWatch.h"
#include "CaptureSession.h"
#include "Program.h"
#include "StopSignal.h"
#include "TaskQueue.h"

namespace vel::sim {

namespace {

constexpr uint32_t kMaxFrames = 1'000'000;
constexpr uint32_t kMaxFramesPerSecond = 1000;

// A line as a verb and numbers; no verb when something in it is neither.
struct Command {
    explicit Command(const std::string& line) {
        std::istringstream words(line);
        words >> verb;
        for (std::string word; words >> word;) {
            const bool isNumber =
                word.size() <= 9 && word.find_first_not_of("0123456789") == std::string::npos;
            if (!isNumber) {
                verb.clear();
                return;
            }
            numbers.push_back(static_cast<uint32_t>(std::stoul(word)));
        }
    }

    bool is(const char* name, size_t count) const { return verb == name && numbers.size() == count; }

    std::string verb;
    std::vector<uint32_t> numbers;
};

}  // namespace

// An open framework camera. Its captures run on a thread of its own, one after the other.
struct CameraServer::Camera {
    void stop() {
        end.set();
        if (captures != nullptr) captures->tasks().cancel();
    }

    std::atomic<uint32_t> id{VelChiDesktopHelper::INVALID_CAMERA_ID};  // a restart changes it
    StopSignal end;
    std::unique_ptr<TaskThread> captures;  // from the first one on; last: it uses the members above
};

CameraServer::CameraServer(VelChiDesktopHelper* helper, CameraWatch& watch)
    : mHelper(helper), mWatch(watch) {}

CameraServer::~CameraServer() {
    stop();
}

bool CameraServer::execute(const std::string& line) {
    const Command command(line);
    const auto& numbers = command.numbers;
    const bool isCamera = !numbers.empty() && mHelper->isValidCameraId(numbers[0]);
    if (isCamera && command.is("open", 1)) {
        open(numbers[0]);
    } else if (isCamera && command.is("close", 1)) {
        close(numbers[0]);
    } else if (isCamera && command.is("status", 1)) {
        printStatus(numbers[0]);
    } else if (isCamera && command.is("capture", 3)) {
        return capture(numbers[0], numbers[1], numbers[2]);
    } else {
        refuseLine(line);
        return false;
    }
    return true;
}

void CameraServer::open(uint32_t fwkId) {
    uint32_t cameraId = fwkId;
    mHelper->updateCameraIdOnHalOpen(cameraId);
    mWatch.look();
    {
        std::lock_guard<std::mutex> lock(mLock);
        std::unique_ptr<Camera>& camera = mOpenCameras[fwkId];
        if (camera == nullptr) camera = std::make_unique<Camera>();
        if (mIsStopped) camera->stop();
        camera->id = cameraId;
    }
    printLine("open %u -> camera %u", fwkId, cameraId);
}

void CameraServer::close(uint32_t fwkId) {
    retire(fwkId);
    mHelper->onHalClose(fwkId);
    mWatch.look();
    printLine("close %u", fwkId);
}

// Tells the captures to end. One that hangs in a call keeps its camera here, so that nobody waits for it.
void CameraServer::retire(uint32_t fwkId) {
    std::lock_guard<std::mutex> lock(mLock);
    mClosed.erase(std::remove_if(mClosed.begin(), mClosed.end(),
                                 [](const auto& closed) { return closed->captures->isOver(); }),
                  mClosed.end());
    auto camera = mOpenCameras.extract(fwkId);
    if (camera.empty()) return;
    camera.mapped()->stop();
    if (camera.mapped()->captures != nullptr) mClosed.push_back(std::move(camera.mapped()));
}

bool CameraServer::capture(uint32_t fwkId, uint32_t frames, uint32_t framesPerSecond) {
    const auto entry = mOpenCameras.find(fwkId);
    if (frames > kMaxFrames || framesPerSecond < 1 || framesPerSecond > kMaxFramesPerSecond) {
        printLine("error at most %u frames, at 1 to %u a second, can be captured", kMaxFrames,
                  kMaxFramesPerSecond);
        return false;
    }
    if (entry == mOpenCameras.end()) {
        printLine("error camera %u is not open", fwkId);
        return false;
    }
    Camera* const camera = entry->second.get();
    if (camera->captures == nullptr && !startCaptures(*camera)) return false;
    camera->captures->tasks().post([this, fwkId, camera, frames, framesPerSecond] {
        CaptureSession(mHelper, fwkId, camera->id, framesPerSecond, camera->end).run(frames);
    });
    return true;
}

bool CameraServer::startCaptures(Camera& camera) try {
    auto captures = std::make_unique<TaskThread>("the captures");
    std::lock_guard<std::mutex> lock(mLock);
    camera.captures = std::move(captures);
    return true;
} catch (const std::system_error& error) {
    printLine("error %s", error.what());
    return false;
}

void CameraServer::finish() {
    for (const auto& [fwkId, camera] : mOpenCameras) {
        if (camera->captures != nullptr) camera->captures->finish();
    }
}

void CameraServer::stop() {
    std::lock_guard<std::mutex> lock(mLock);
    mIsStopped = true;
    for (const auto& [fwkId, camera] : mOpenCameras)
        camera->stop();
}

void CameraServer::restartSession(uint32_t fwkId) {
    const auto entry = mOpenCameras.find(fwkId);
    if (entry == mOpenCameras.end()) {
        printLine("restart of %u refused: not open", fwkId);
        return;
    }
    const uint32_t cameraId = entry->second->id;
    uint32_t original = VelChiDesktopHelper::INVALID_CAMERA_ID;
    if (!mHelper->needsCameraIdSwitch(cameraId, original)) {
        printLine("restart of %u: camera %u stays", fwkId, cameraId);
        return;
    }
    mWatch.look();
    printLine("restart of %u: camera %u must be switched", original, cameraId);
    open(original);
}

void CameraServer::printStatus(uint32_t fwkId) {
    const uint32_t cameraId = mHelper->getCurrentOverrideId(fwkId);
    printLine("status %u: camera %u, original %u, override %d, desktop %d", fwkId, cameraId,
              mHelper->getOriginalCameraId(cameraId), mHelper->isCameraInOverride(cameraId),
              mHelper->isDesktopMode(fwkId, FWK_CAMERA_ID));
}

}  // namespace vel::sim
