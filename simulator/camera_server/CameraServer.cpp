#include "CameraServer.h"

#include <VelChiDesktopHelper.h>

#include <sstream>
#include <vector>

#include "CaptureSession.h"
#include "Program.h"

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

CameraServer::CameraServer(VelChiDesktopHelper* helper) : mHelper(helper) {}

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
    mOpenCameras[fwkId] = cameraId;
    printLine("open %u -> camera %u", fwkId, cameraId);
}

void CameraServer::close(uint32_t fwkId) {
    mHelper->onHalClose(fwkId);
    mOpenCameras.erase(fwkId);
    printLine("close %u", fwkId);
}

bool CameraServer::capture(uint32_t fwkId, uint32_t frames, uint32_t framesPerSecond) {
    const auto camera = mOpenCameras.find(fwkId);
    if (frames > kMaxFrames || framesPerSecond < 1 || framesPerSecond > kMaxFramesPerSecond) {
        printLine("error at most %u frames, at 1 to %u a second, can be captured", kMaxFrames,
                  kMaxFramesPerSecond);
        return false;
    }
    if (camera == mOpenCameras.end()) {
        printLine("error camera %u is not open", fwkId);
        return false;
    }
    CaptureSession(mHelper, camera->second, framesPerSecond, mStop).run(frames);
    return true;
}

void CameraServer::restartSession(uint32_t fwkId) {
    const auto camera = mOpenCameras.find(fwkId);
    if (camera == mOpenCameras.end()) {
        printLine("restart of %u refused: not open", fwkId);
        return;
    }
    uint32_t original = VelChiDesktopHelper::INVALID_CAMERA_ID;
    if (!mHelper->needsCameraIdSwitch(camera->second, original)) {
        printLine("restart of %u: camera %u stays", fwkId, camera->second);
        return;
    }
    printLine("restart of %u: camera %u must be switched", original, camera->second);
    open(original);
}

void CameraServer::printStatus(uint32_t fwkId) {
    const uint32_t cameraId = mHelper->getCurrentOverrideId(fwkId);
    printLine("status %u: camera %u, original %u, override %d, desktop %d", fwkId, cameraId,
              mHelper->getOriginalCameraId(cameraId), mHelper->isCameraInOverride(cameraId),
              mHelper->isDesktopMode(fwkId, FWK_CAMERA_ID));
}

}  // namespace vel::sim
