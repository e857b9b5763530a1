#pragma once

#include <gtest/gtest.h>
#include <hidl_host/LocalServices.h>

#include <memory>
#include <string>
#include <vector>

#include "DesktopHelperTestAccess.h"
#include "DetachedThread.h"
#include "FakeDesktopService.h"
#include "LogCapture.h"
#include "WaitUntil.h"

/** A helper of the test's own and what it logs; there is no desktop service yet. */
class HelperFixture : public testing::Test {
  protected:
    using ClientType = FakeDesktopService::ClientType;
    using Operation = FakeDesktopService::Operation;

    HelperFixture() { log.clear(); }
    ~HelperFixture() override {
        awaitThreads();
        helper.reset();
        vel::host::clearLocalServices();
    }

    /** Starts a service and makes a new helper, which connects to it. */
    void start() {
        service = FakeDesktopService::start();
        remake();
        log.clear();
    }
    void remake() {
        helper.reset();
        helper = DesktopHelperTestAccess::create();
    }
    static void kill() {
        vel::host::killLocalService("default");
        vel::host::awaitDeathNotices();
    }
    /** Waits until the helper has no thread that could still log or send. */
    static void awaitThreads() {
        EXPECT_TRUE(waitUntil([] { return detached_thread::liveCount() == 0; }));
    }
    std::string send(const std::string& command) { return helper->handleCommand(command); }
    VelChiDesktopHelper::DesktopSettings& record(uint32_t fwkId) {
        return DesktopHelperTestAccess::settings(*helper, fwkId);
    }
    std::vector<std::string> logged() const { return log.texts("VelCameraDesktopChiHelper"); }

    static constexpr uint32_t kNone = 65535;  // no camera
    LogCapture log;
    android::sp<FakeDesktopService> service;
    std::unique_ptr<VelChiDesktopHelper> helper = DesktopHelperTestAccess::create();
};

/** The same, connected to a service; the calls of the connection are forgotten. */
class ConnectedHelperFixture : public HelperFixture {
  protected:
    ConnectedHelperFixture() {
        start();
        service->forgetCalls();
    }
};
