#pragma once

#include <utility>

#include "JsonObject.h"
#include "LatencyStats.h"

namespace vel::sim {

/** Percentiles and maximum, in units of so many nanoseconds. */
inline JsonObject latencyArgs(const LatencyStats& times, double nsPerUnit) {
    JsonObject args;
    for (const auto& [name, percent] : {std::pair("p50", 50), std::pair("p90", 90), std::pair("p99", 99)})
        args.add(name, static_cast<double>(times.percentileNs(percent)) / nsPerUnit);
    return args.add("max", static_cast<double>(times.maxNs()) / nsPerUnit);
}

}  // namespace vel::sim
