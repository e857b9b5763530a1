#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "Drawing.h"
#include "Effects.h"
#include "FrameCounter.h"
#include "FrameView.h"
#include "LatencyStats.h"
#include "TestPicture.h"

namespace vel::sim {
namespace {

constexpr Effect kEffects[] = {Effect::None, Effect::Tint, Effect::Mirror, Effect::Blur};

bool isSamePicture(const Frame& a, const Frame& b) {
    return std::equal(a.view().block(), a.view().block() + a.view().bytes(), b.view().block());
}

// The runs take a frame for what its counter says, so nothing else may pass for one.
TEST(AFrameCounter, IsRefusedWhenOneCellIsWrongOrUnclear) {
    for (const uint8_t level : {uint8_t{16}, uint8_t{235}, uint8_t{125}}) {
        for (int cell = 0; cell < 48; ++cell) {
            if (level == 125 && cell < 4) continue;  // a grey cell of the head leaves its level in doubt only
            Frame frame({480, 270});
            stampFrameCounter(frame.view(), {123456789, 3});
            const bool same = frame.view().y().row(5)[cell * 10 + 5] == level;
            fillArea(frame.view(), {cell * 10, 0, 10, 10}, {level, 128, 128});
            EXPECT_EQ(readFrameCounter(frame.view()).has_value(), same) << "cell " << cell;
        }
    }
    EXPECT_FALSE(readFrameCounter(Frame({480, 270}).view())) << "a black frame has none";
}

TEST(AnEffect, IsSeenInThePictureAndLeavesTheCounterReadable) {
    for (const FrameSize size : {FrameSize{1920, 1080}, {641, 479}, {161, 121}, {96, 64}}) {
        for (const Effect effect : kEffects) {
            const uint32_t counter = 0x5a5a5a5au;
            Frame source(size), result(size);
            TestPicture(size, 3).draw(counter, source.view());
            EffectFilter(effect, size).apply(source.view(), result.view());
            EXPECT_EQ(readFrameCounter(result.view()), (FrameCounter{counter, 3}))
                << effectName(effect) << " at " << size.width << "x" << size.height;
            EXPECT_EQ(isSamePicture(source, result), effect == Effect::None);
        }
    }
}

TEST(EveryPicture, StaysInsideTheFrameHoweverSmallAndLong) {
    for (const FrameSize size : {FrameSize{2, 2}, {3, 3}, {2, 300}, {301, 3}, {47, 31}}) {
        constexpr std::ptrdiff_t kGuard = 16;
        std::vector<uint8_t> block(frameBytes(size) + 2 * kGuard, 0xa5);
        const FrameView inside(block.data() + kGuard, size);
        TestPicture(size, 3).draw(0xffffffffu, inside);
        for (const Effect effect : kEffects)
            EffectFilter(effect, size).apply(Frame(size).view(), inside);
        EXPECT_EQ(std::count(block.begin(), block.begin() + kGuard, 0xa5), kGuard);
        EXPECT_EQ(std::count(block.end() - kGuard, block.end(), 0xa5), kGuard);
    }
}

TEST(LatencyStats, KeepPercentilesWithinTheirStatedError) {
    LatencyStats stats;
    for (int64_t ms = 1; ms <= 1000; ++ms)
        stats.record(ms * 1'000'000);
    EXPECT_EQ(stats.maxNs(), 1'000'000'000);
    for (const int percent : {1, 50, 90, 99, 100}) {
        EXPECT_GE(stats.percentileNs(percent), percent * 10'000'000) << percent;
        EXPECT_LE(stats.percentileNs(percent), percent * 10'000'000 * (1 + 1.0 / 64)) << percent;
    }
}

}  // namespace
}  // namespace vel::sim
