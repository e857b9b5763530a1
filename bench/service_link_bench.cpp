// setCommandTo() across processes against a bare exchange on the same transport: the same text to the same
// peer through the same service, without the library between.

#include <benchmark/benchmark.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <string>

#include "Percentiles.h"
#include "RatioReporter.h"
#include "ServicePeers.h"

namespace {

using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;

const std::string kText =
    R"({"event":{"type":"sessionRestartDone"},"cameraIds":{"originalId":0,"overrideId":2}})";

void linkProduct(benchmark::State& state) {
    VelChiDesktopHelper& helper = ServicePeers::get().helper();
    measureEach(state, [&] { benchmark::DoNotOptimize(helper.setCommandTo(ClientType::CLIENT_APP, kText)); });
}

void linkFloor(benchmark::State& state) {
    ICameraDesktop& service = ServicePeers::get().service();
    std::string reply;
    measureEach(state, [&] {
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
