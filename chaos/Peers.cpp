#include "Peers.h"

#include <chrono>
#include <cstdlib>
#include <stdexcept>

#include "DesktopBusNames.h"
#include "Programs.h"
#include "WaitUntil.h"

namespace vel::chaos {

using namespace std::chrono_literals;

namespace {

constexpr char kCameraOpens[] =
    R"({"event":{"type":"cameraOpen","id":"0","isDesktop":true,"packageName":"org.example.desktop"}})";
constexpr char kFilters[] =
    R"({"filter-requests":["android.control.aeExposureCompensation"],"filter-results":[]})";

// Sends the line again until the application has done what it says.
void require(sim::ChildProcess& app, const std::string& line, const std::string& answer) {
    const auto isDone = [&] {
        app.writeLine(line);
        while (!app.waitForLine(answer, 10ms)) {
            if (app.waitForLine("error ", 0ms) || app.wait(0ms)) return false;
        }
        return true;
    };
    if (!waitUntil(isDone)) throw std::runtime_error("the application cannot " + line);
}

}  // namespace

Peers::Peers() {
    setenv(desktop_bus::kAddressVariable, mBus.address().c_str(), 1);
    startBoth();
}

void Peers::killService() {
    mService.reset();
}

void Peers::startService() {
    mService = startProgram({"desktop_service"}, mBus.address());
}

void Peers::killApp() {
    mApp.reset();
}

void Peers::startApp() {
    mApp = startProgram({"desktop_app", "-", "--quiet", "--change-metadata"}, mBus.address());
}

void Peers::killBoth() {
    killService();
    killApp();
}

void Peers::startBoth() {
    startService();
    startApp();
}

void Peers::killBus() {
    mBus.kill();
    killService();
}

void Peers::startBus() {
    mBus.restart();
    startService();
}

void Peers::configureApp() {
    require(*mApp, kCameraOpens, "reply OK_HAL");
    require(*mApp, kFilters, "reply OK_HAL");
    const std::string size = std::to_string(kFrameSize.width) + "x" + std::to_string(kFrameSize.height);
    require(*mApp, "frames size=" + size + " effect=none", "configured");
}

std::string Peers::endedByItself() {
    if (mService->wait(0ms)) return "the service";
    if (mApp->wait(0ms)) return "the application";
    return "";
}

}  // namespace vel::chaos
