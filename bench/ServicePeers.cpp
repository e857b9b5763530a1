#include "ServicePeers.h"

#include <cstdlib>

#include "DesktopBusNames.h"

using vel::sim::ChildProcess;

ServicePeers& ServicePeers::get() {
    static ServicePeers peers;
    return peers;
}

ServicePeers::ServicePeers() {
    setenv(vel::desktop_bus::kAddressVariable, mBus.address().c_str(), 1);
    const std::string programs = VEL_PROGRAM_DIR;
    start(programs + "/desktop_service", {"--bus", mBus.address(), "--trace"}, "ready");
    start(programs + "/desktop_app", {"--bus", mBus.address(), "--stay", "--quiet"}, "registered");
    start(VEL_FRAME_CONSUMER, {}, "ready");
    mHelper = DesktopHelperTestAccess::create();
    mService = ICameraDesktop::tryGetService("default", false);
}

void ServicePeers::start(const std::string& program, std::vector<std::string> arguments,
                         const char* readyLine) {
    ChildProcess::Options options;
    options.command = std::move(arguments);
    options.command.insert(options.command.begin(), program);
    mPeers.push_back(std::make_unique<ChildProcess>(std::move(options)));
    if (!mPeers.back()->waitForLine(readyLine)) std::abort();
}
