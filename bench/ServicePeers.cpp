#include "ServicePeers.h"

#include <cstdlib>

#include "DesktopBusNames.h"
#include "Programs.h"

ServicePeers& ServicePeers::get() {
    static ServicePeers peers;
    return peers;
}

ServicePeers::ServicePeers() {
    setenv(vel::desktop_bus::kAddressVariable, mBus.address().c_str(), 1);
    mPeers.push_back(startService(mBus.address()));
    start({"desktop_app", "--stay", "--quiet"}, "registered");
    start({VEL_FRAME_CONSUMER}, "ready");
    mHelper = DesktopHelperTestAccess::create();
    mService = ICameraDesktop::tryGetService("default", false);
}

void ServicePeers::start(std::vector<std::string> command, const char* readyLine) {
    mPeers.push_back(startProgram(std::move(command), mBus.address()));
    if (!mPeers.back()->waitForLine(readyLine)) std::abort();
}
