// setCommandTo() across processes against a bare exchange on the same transport: the same text to the same
// peer through the same service, without the library between.

#include <benchmark/benchmark.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "DesktopHelperTestAccess.h"
#include "PrivateBus.h"
#include "RatioReporter.h"

namespace {

using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
using vel::sim::ChildProcess;

const std::string kText =
    R"({"event":{"type":"sessionRestartDone"},"cameraIds":{"originalId":0,"overrideId":2}})";

// The bus, the service and an application that answers; started once and ended with the program.
class Peers {
  public:
    static Peers& get() {
        static Peers peers;
        return peers;
    }

    VelChiDesktopHelper& helper() { return *mHelper; }
    ICameraDesktop& service() { return *mService; }

  private:
    Peers() {
        setenv("VEL_DESKTOP_BUS_ADDRESS", mBus.address().c_str(), 1);
        mServiceProcess = start({"desktop_service", "--bus", mBus.address(), "--trace"}, "ready");
        mApplication = start({"desktop_app", "--bus", mBus.address(), "--stay", "--quiet"}, "registered");
        mHelper = DesktopHelperTestAccess::create();
        mService = ICameraDesktop::tryGetService("default", false);
    }

    static std::unique_ptr<ChildProcess> start(std::vector<std::string> command, const char* readyLine) {
        ChildProcess::Options options;
        options.command = std::move(command);
        options.command[0] = std::string(VEL_PROGRAM_DIR) + "/" + options.command[0];
        auto child = std::make_unique<ChildProcess>(std::move(options));
        if (!child->waitForLine(readyLine)) std::abort();
        return child;
    }

    vel::sim::PrivateBus mBus;
    std::unique_ptr<ChildProcess> mServiceProcess;
    std::unique_ptr<ChildProcess> mApplication;
    std::unique_ptr<VelChiDesktopHelper> mHelper;
    android::sp<ICameraDesktop> mService;
};

// Runs the exchange once an iteration and reports the median and the 99th percentile of its time.
template <typename Exchange>
void measure(benchmark::State& state, Exchange exchange) {
    std::vector<double> microseconds;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        exchange();
        const std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - start;
        microseconds.push_back(elapsed.count());
    }
    std::sort(microseconds.begin(), microseconds.end());
    state.counters["p50_us"] = microseconds[microseconds.size() / 2];
    state.counters["p99_us"] = microseconds[microseconds.size() * 99 / 100];
}

void linkProduct(benchmark::State& state) {
    VelChiDesktopHelper& helper = Peers::get().helper();
    measure(state, [&] { benchmark::DoNotOptimize(helper.setCommandTo(ClientType::CLIENT_APP, kText)); });
}

void linkFloor(benchmark::State& state) {
    ICameraDesktop& service = Peers::get().service();
    std::string reply;
    measure(state, [&] {
        const auto result = service.sendCommand(
            ClientType::CLIENT_APP, kText,
            [&](const android::hardware::hidl_string& text) { reply.assign(text.c_str(), text.size()); });
        if (!result.isOk()) state.SkipWithError("the exchange failed");
    });
}

BENCHMARK(linkProduct)->Name("command to a peer/product")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(linkFloor)->Name("command to a peer/floor")->UseRealTime()->Unit(benchmark::kMicrosecond);
const bool kAimsAdded =
    (addAim({"command to a peer", "p50_us", 1.15}), addAim({"command to a peer", "p99_us", 1.15}), true);

}  // namespace
