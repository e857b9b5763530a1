#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

/** Runs the work once an iteration and reports the median and the 99th percentile of its time. */
template <typename Work>
void measureEach(benchmark::State& state, Work work) {
    std::vector<double> microseconds;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        work();
        const std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - start;
        microseconds.push_back(elapsed.count());
    }
    if (microseconds.empty()) return;
    std::sort(microseconds.begin(), microseconds.end());
    state.counters["p50_us"] = microseconds[microseconds.size() / 2];
    state.counters["p99_us"] = microseconds[microseconds.size() * 99 / 100];
}
