#include "LatencyStats.h"

#include <algorithm>
#include <cmath>

namespace vel::sim {

// Values below kSteps have a bucket each; above, the top kStepBits + 1 bits of a value choose it.
int LatencyStats::bucketOf(uint64_t value) {
    if (value < kSteps) return static_cast<int>(value);
    const int doublings = 63 - __builtin_clzll(value) - kStepBits;
    return doublings * kSteps + static_cast<int>(value >> doublings);
}

int64_t LatencyStats::highestOf(int bucket) {
    if (bucket < 2 * kSteps) return bucket;
    const int doublings = bucket / kSteps - 1;
    const uint64_t top = static_cast<uint64_t>(bucket % kSteps) + kSteps;
    return static_cast<int64_t>(((top + 1) << doublings) - 1);
}

void LatencyStats::record(int64_t latencyNs) {
    const int64_t latency = std::max<int64_t>(0, latencyNs);
    ++mBuckets[static_cast<size_t>(bucketOf(static_cast<uint64_t>(latency)))];
    ++mCount;
    mMax = std::max(mMax, latency);
}

int64_t LatencyStats::percentileNs(double percent) const {
    if (mCount == 0) return 0;
    const double share = std::clamp(percent, 0.0, 100.0) / 100.0;
    const auto rank =
        std::max<uint64_t>(1, static_cast<uint64_t>(std::ceil(share * static_cast<double>(mCount))));
    uint64_t seen = 0;
    int bucket = 0;
    while (bucket < kBuckets - 1 && (seen += mBuckets[static_cast<size_t>(bucket)]) < rank)
        ++bucket;
    return std::min(highestOf(bucket), mMax);
}

}  // namespace vel::sim
