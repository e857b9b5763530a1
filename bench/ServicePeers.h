#pragma once

#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "DesktopHelperTestAccess.h"
#include "PrivateBus.h"

/**
 * A private bus with the service and this process's helper on it, started once and ended with the program.
 */
class ServicePeers {
  public:
    using ICameraDesktop = korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;

    static ServicePeers& get();

    VelChiDesktopHelper& helper() { return *mHelper; }
    ICameraDesktop& service() { return *mService; }

  private:
    ServicePeers();
    /** Starts a program and waits until it says that it is ready; ends this one otherwise. */
    void start(std::vector<std::string> command, const char* readyLine);

    vel::sim::PrivateBus mBus;
    std::vector<std::unique_ptr<vel::sim::ChildProcess>> mPeers;
    std::unique_ptr<VelChiDesktopHelper> mHelper;
    android::sp<ICameraDesktop> mService;
};
