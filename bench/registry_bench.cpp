// A registry query against what it cannot do without: one lock and a scan of sixteen records.

#include <benchmark/benchmark.h>

#include <mutex>

#include "DesktopHelperTestAccess.h"
#include "RatioReporter.h"

namespace {

constexpr uint32_t kOpenId = 9;
constexpr uint32_t kLastCamera = 15;  // the longest scan

[[gnu::noinline]] uint32_t scanUnderLock(std::mutex& lock,
                                         const VelChiDesktopHelper::DesktopSettings* records,
                                         uint32_t overrideId) {
    std::lock_guard<std::mutex> guard(lock);
    for (uint32_t id = 0; id < 16; ++id) {
        if (records[id].currentOverrideId == overrideId) return id;
    }
    return overrideId;
}

void registryProduct(benchmark::State& state) {
    const auto helper = DesktopHelperTestAccess::create();
    DesktopHelperTestAccess::settings(*helper, kLastCamera).currentOverrideId = kOpenId;
    uint32_t id = kOpenId;
    for (auto _ : state) {
        benchmark::DoNotOptimize(id);
        benchmark::DoNotOptimize(helper->getOriginalCameraId(id));
    }
}

void registryFloor(benchmark::State& state) {
    std::mutex lock;
    VelChiDesktopHelper::DesktopSettings records[16];
    records[kLastCamera].currentOverrideId = kOpenId;
    uint32_t id = kOpenId;
    for (auto _ : state) {
        benchmark::DoNotOptimize(id);
        benchmark::DoNotOptimize(scanUnderLock(lock, records, id));
    }
}

BENCHMARK(registryProduct)->Name("registry query/product");
BENCHMARK(registryFloor)->Name("registry query/floor");
const bool kAimAdded = (addAim({"registry query", "cpu", 1.3}), true);

}  // namespace
