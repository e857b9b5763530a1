// handleCommand() against parsing the same text and reading the same members with bare RapidJSON.

#include <benchmark/benchmark.h>

#include <string>

#include "AllocationCounter.h"
#include "DesktopHelperTestAccess.h"
#include "RapidJson.h"
#include "RatioReporter.h"

namespace {

const std::string kGeneral = R"({"general":{"originalId":0,"overrideId":2}})";
const std::string kGet = R"({"get":{"what":"overrideId","originalId":0,"clientName":"org.example.desktop"}})";

const rapidjson::Value& memberOf(const rapidjson::Value& object, const char* name) {
    return object.FindMember(name)->value;
}

void commandProduct(benchmark::State& state, const std::string& text) {
    const auto helper = DesktopHelperTestAccess::create();
    DesktopHelperTestAccess::settings(*helper, 0).currentOverrideId = 2;
    helper->handleCommand(kGeneral);
    AllocationCounter allocations;
    for (auto _ : state)
        benchmark::DoNotOptimize(helper->handleCommand(text));
    state.counters["allocs"] =
        static_cast<double>(allocations.count()) / static_cast<double>(state.iterations());
}

void generalFloor(benchmark::State& state) {
    for (auto _ : state) {
        rapidjson::Document document;
        document.Parse(kGeneral.c_str());
        const rapidjson::Value& general = memberOf(document, "general");
        benchmark::DoNotOptimize(memberOf(general, "originalId").GetInt());
        benchmark::DoNotOptimize(memberOf(general, "overrideId").GetInt());
    }
}

void getFloor(benchmark::State& state) {
    for (auto _ : state) {
        rapidjson::Document document;
        document.Parse(kGet.c_str());
        const rapidjson::Value& get = memberOf(document, "get");
        benchmark::DoNotOptimize(memberOf(get, "what").GetString());
        benchmark::DoNotOptimize(memberOf(get, "originalId").GetInt());
        benchmark::DoNotOptimize(memberOf(get, "clientName").GetString());
    }
}

BENCHMARK_CAPTURE(commandProduct, general, kGeneral)->Name("command general/product");
BENCHMARK(generalFloor)->Name("command general/floor");
BENCHMARK_CAPTURE(commandProduct, get, kGet)->Name("command get/product");
BENCHMARK(getFloor)->Name("command get/floor");
const bool kAimsAdded = (addAim({"command general", "cpu", 1.5}), addAim({"command get", "cpu", 1.5}), true);

}  // namespace
