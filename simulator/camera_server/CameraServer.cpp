#include "CameraServer.h"

#include <VelChiDesktopHelper.h>

#include <sstream>

#include "CaptureSession.h"
#include "Program.h"

namespace vel::sim {

namespace {
constexpr uint32_t kMaxFramesPerSecond = 1000;
}

CameraServer::CameraServer(VelChiDesktopHelper* helper) : mHelper(helper) {}

bool CameraServer::execute(const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    uint32_t fwkId = VelChiDesktopHelper::INVALID_CAMERA_ID;
    words >> verb >> fwkId;
    if (words.fail() || !mHelper->isValidCameraId(fwkId)) {
        printLine("error not understood: %s", line.c_str());
        return false;
    }
    if (verb == "open") {
        open(fwkId);
    } else if (verb == "close") {
        close(fwkId);
    } else if (verb == "status") {
        printStatus(fwkId);
    } else if (verb == "capture") {
        return capture(fwkId, words);
    } else {
        printLine("error no such command: %s", verb.c_str());
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

bool CameraServer::capture(uint32_t fwkId, std::istream& words) {
    uint32_t frames = 0, framesPerSecond = 0;
    words >> frames >> framesPerSecond;
    const auto camera = mOpenCameras.find(fwkId);
    if (words.fail() || framesPerSecond < 1 || framesPerSecond > kMaxFramesPerSecond) {
        printLine("error usage: capture CAMERA FRAMES FRAMES_PER_SECOND (1 to %u)", kMaxFramesPerSecond);
        return false;
    }
    if (camera == mOpenCameras.end()) {
        printLine("error camera %u is not open", fwkId);
        return false;
    }
    CaptureSession(mHelper, camera->second, framesPerSecond).run(frames);
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
