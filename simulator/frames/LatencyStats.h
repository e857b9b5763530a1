#pragma once

#include <array>
#include <cstdint>

namespace vel::sim {

/**
 * The distribution of latencies in constant memory (30 KB): every value is counted, in buckets that are at
 * most 1/64 of their values wide. Maximum and count are exact; a percentile is at most 1.6 % above the true
 * value and never below it. Values below 64 ns are exact.
 *
 * Not thread-safe.
 */
class LatencyStats {
  public:
    /** A negative latency, which only a clock's fault can give, counts as 0. */
    void record(int64_t latencyNs);

    uint64_t count() const { return mCount; }
    /** 0 while nothing was recorded. */
    int64_t maxNs() const { return mMax; }
    /**
     * The value that the given share of the latencies does not exceed, percent from 0 to 100; 0 while nothing
     * was recorded.
     */
    int64_t percentileNs(double percent) const;

  private:
    static constexpr int kStepBits = 6;
    static constexpr int kSteps = 1 << kStepBits;  // buckets for each doubling
    static constexpr int kBuckets = (63 - kStepBits + 1) * kSteps;

    static int bucketOf(uint64_t value);
    static int64_t highestOf(int bucket);

    std::array<uint64_t, kBuckets> mBuckets{};
    uint64_t mCount = 0;
    int64_t mMax = 0;
};

}  // namespace vel::sim
