// A bus that is not there, in a process that looks for the service at each of its captures.

#include <gtest/gtest.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <systemd/sd-bus.h>

#include <atomic>

#include "DesktopBusNames.h"
#include "NextDefinition.h"

namespace {
std::atomic<int> gAttempts{0};
}

// In place of the bus library's, which is called for each attempt to reach a bus.
extern "C" int sd_bus_start(sd_bus* bus) {
    ++gAttempts;
    return nextDefinition<decltype(sd_bus_start)>(__func__)(bus);
}

// The bus library loses what a failed attempt has taken.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libsystemd";
}

TEST(AnAbsentBus, IsTriedEverMoreSeldom) {
    setenv(vel::desktop_bus::kAddressVariable, "unix:path=/nonexistent/bus", 1);
    using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
    for (int lookUp = 0; lookUp < 500; ++lookUp)
        EXPECT_EQ(ICameraDesktop::tryGetService("default", false), nullptr);
    EXPECT_GE(gAttempts, 1);
    EXPECT_LT(gAttempts, 50);
}
