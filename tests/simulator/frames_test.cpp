#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <random>
#include <vector>

#include "ContactSheet.h"
#include "Drawing.h"
#include "Effects.h"
#include "FrameCounter.h"
#include "FrameView.h"
#include "LatencyStats.h"
#include "TemporaryFolder.h"
#include "TestPicture.h"

namespace vel::sim {
namespace {

constexpr Effect kEffects[] = {Effect::None, Effect::Tint, Effect::Mirror, Effect::Blur};

bool isSamePicture(const Frame& a, const Frame& b) {
    return std::equal(a.view().block(), a.view().block() + a.view().bytes(), b.view().block());
}

TEST(AFrame, IsRefusedWithoutASize) {
    for (const FrameSize size : {FrameSize{0, 4}, {4, -2}, {1, 1}, {8194, 2}, {2, 1 << 30}})
        EXPECT_THROW(Frame{size}, std::invalid_argument) << size.width << "x" << size.height;
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
    for (const FrameSize size : {FrameSize{1920, 1080}, {641, 479}, {320, 240}, {161, 121}, {96, 64}}) {
        for (const uint32_t counter : {0u, 0x55555555u, 0xffffffffu, 12345u}) {
            Frame source(size);
            TestPicture(size, 3).draw(counter, source.view());
            for (const Effect effect : kEffects) {
                Frame result(size);
                EffectFilter(effect, size).apply(source.view(), result.view());
                EXPECT_EQ(readFrameCounter(result.view()), (FrameCounter{counter, 3}))
                    << effectName(effect) << " at " << size.width << "x" << size.height;
                EXPECT_EQ(isSamePicture(source, result), effect == Effect::None);
            }
        }
    }
    EXPECT_THROW(parseEffect("sepia"), std::invalid_argument);
}

TEST(EveryPicture, StaysInsideTheFrameHoweverSmallAndLong) {
    for (const FrameSize size : {FrameSize{2, 2}, {3, 3}, {7, 5}, {2, 300}, {301, 3}, {47, 31}, {161, 9}}) {
        constexpr std::ptrdiff_t kGuard = 16;
        std::vector<uint8_t> block(frameBytes(size) + 2 * kGuard, 0xa5);
        const FrameView inside(block.data() + kGuard, size);
        Frame source(size);
        for (const uint32_t counter : {0u, 1u, 1000u, 0x7fffffffu, 0xffffffffu})
            TestPicture(size, 3).draw(counter, inside);
        for (const Effect effect : kEffects)
            EffectFilter(effect, size).apply(source.view(), inside);
        EXPECT_EQ(std::count(block.begin(), block.begin() + kGuard, 0xa5), kGuard);
        EXPECT_EQ(std::count(block.end() - kGuard, block.end(), 0xa5), kGuard);
    }
}

TEST(LatencyStats, KeepPercentilesWithinTheirStatedError) {
    std::mt19937_64 random(99);
    std::lognormal_distribution<double> milliseconds(1.5, 1.0);
    LatencyStats stats;
    std::vector<int64_t> all;
    for (int i = 0; i < 50000; ++i) {
        all.push_back(static_cast<int64_t>(milliseconds(random) * 1e6));
        stats.record(all.back());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(stats.maxNs(), all.back());
    for (const double percent : {0.0, 1.0, 50.0, 90.0, 99.0, 99.9, 100.0}) {
        const auto rank = std::max<size_t>(1, static_cast<size_t>(std::ceil(percent / 100 * 50000)));
        const auto truth = static_cast<double>(all[rank - 1]);
        EXPECT_GE(static_cast<double>(stats.percentileNs(percent)), truth) << percent;
        EXPECT_LE(static_cast<double>(stats.percentileNs(percent)), truth * (1 + 1.0 / 64)) << percent;
    }
}

TEST(LatencyStats, CountEveryValueThereIs) {
    LatencyStats stats;
    EXPECT_EQ(stats.percentileNs(50), 0);
    stats.record(-5);
    EXPECT_EQ(stats.maxNs(), 0);
    for (int shift = 0; shift < 63; ++shift)
        stats.record(int64_t{1} << shift);
    stats.record(INT64_MAX);
    EXPECT_EQ(stats.count(), 65u);
    EXPECT_EQ(stats.percentileNs(100), INT64_MAX);
}

TEST(AContactSheet, LeavesNothingBehindWhereItCannotBeWritten) {
    const TemporaryFolder folder;
    ContactSheet sheet;
    const Frame frame({64, 48});
    sheet.add({}, frame.view(), frame.view());
    folder.write("file", "no folder");
    std::filesystem::create_directories(folder.path("taken.png/inside"));
    for (const std::string& file : {folder.path("file/sheet.png"), folder.path("taken.png")})
        EXPECT_THROW(sheet.write(file), std::runtime_error) << file;
    EXPECT_THAT(folder.names(), testing::UnorderedElementsAre("file", "taken.png"));
}

}  // namespace
}  // namespace vel::sim
