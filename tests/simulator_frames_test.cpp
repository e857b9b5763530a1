#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>

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
constexpr FrameSize kSizes[] = {{1920, 1080}, {1280, 720}, {641, 479}, {320, 240}, {161, 121}, {96, 64}};

// Mean absolute difference of two planes' samples.
double difference(const Plane<const uint8_t>& a, const Plane<const uint8_t>& b) {
    int64_t sum = 0;
    for (int y = 0; y < a.height; ++y) {
        for (int x = 0; x < a.width; ++x)
            sum += std::abs(a.row(y)[x] - b.row(y)[x]);
    }
    return static_cast<double>(sum) / a.width / a.height;
}

double difference(const Frame& a, const Frame& b) {
    return difference(a.view().y(), b.view().y()) + difference(a.view().u(), b.view().u()) +
           difference(a.view().v(), b.view().v());
}

Frame pictureOf(FrameSize size, uint32_t counter = 7, uint32_t stream = 2) {
    Frame frame(size);
    TestPicture(size, stream).draw(counter, frame.view());
    return frame;
}

Frame applied(Effect effect, const Frame& source) {
    Frame result(source.size());
    EffectFilter(effect, source.size()).apply(source.view(), result.view());
    return result;
}

// A frame in a block of its own with bytes around it that nobody may write.
class GuardedFrame {
  public:
    explicit GuardedFrame(FrameSize size)
        : mBlock(frameBytes(size) + 16, 0xa5), view(mBlock.data() + 8, size) {}
    bool isWhole() const {
        const auto isGuard = [](uint8_t byte) { return byte == 0xa5; };
        return std::all_of(mBlock.begin(), mBlock.begin() + 8, isGuard) &&
               std::all_of(mBlock.end() - 8, mBlock.end(), isGuard);
    }

  private:
    std::vector<uint8_t> mBlock;

  public:
    const FrameView view;
};

TEST(AFrameView, KeepsItsPlanesInsideTheBlockForEverySize) {
    for (int width = 2; width < 40; ++width) {
        for (int height = 2; height < 40; ++height) {
            Frame frame({width, height});
            const auto view = frame.view();
            const uint8_t* const end = view.v().row(view.v().height - 1) + view.v().width;
            EXPECT_EQ(view.u().data, view.y().row(height));
            EXPECT_EQ(view.v().data, view.u().row(view.u().height));
            EXPECT_LE(end, view.block() + view.bytes()) << width << "x" << height;
        }
    }
}

TEST(AFrameView, RefusesWhatIsNoFrame) {
    uint8_t block[64];
    EXPECT_THROW(FrameView(nullptr, {4, 4}), std::invalid_argument);
    for (const FrameSize size : {FrameSize{0, 4}, {4, -2}, {1, 1}, {8194, 2}, {2, 1 << 30}})
        EXPECT_THROW(FrameView(block, size), std::invalid_argument) << size.width << "x" << size.height;
}

TEST(AFrameCounter, ComesBackFromEverySizeThatHoldsIt) {
    for (const FrameSize size : {FrameSize{48, 8}, {99, 33}, {641, 479}, {1920, 1080}, {8192, 8}}) {
        for (const uint32_t counter : {0u, 1u, 0x55555555u, 0xaaaaaaaau, 0xffffffffu}) {
            Frame frame(size);
            const FrameCounter written{counter, counter % 4};
            ASSERT_TRUE(stampFrameCounter(frame.view(), written));
            EXPECT_EQ(readFrameCounter(frame.view()), written) << size.width << "x" << size.height;
        }
    }
    for (const FrameSize size : {FrameSize{47, 100}, {100, 7}}) {
        Frame frame(size);
        EXPECT_FALSE(stampFrameCounter(frame.view(), {1, 1}));
        EXPECT_EQ(difference(frame, Frame(size)), 0);
        EXPECT_FALSE(readFrameCounter(frame.view()));
    }
}

TEST(AFrameCounter, IsNotSeenInNoise) {
    std::mt19937 random(4711);
    for (int round = 0; round < 1000; ++round) {
        Frame frame({96, 16});
        std::generate_n(frame.view().block(), frame.view().bytes(), std::ref(random));
        EXPECT_FALSE(readFrameCounter(frame.view()));
    }
    EXPECT_FALSE(readFrameCounter(Frame({320, 240}).view())) << "a black frame has no counter";
}

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
}

TEST(ATestPicture, MovesAndShowsItsStream) {
    for (const FrameSize size : kSizes) {
        const Frame first = pictureOf(size, 100, 1);
        EXPECT_EQ(readFrameCounter(first.view()), (FrameCounter{100, 1}));
        EXPECT_GT(difference(first, pictureOf(size, 101, 1)), 0.1);
        const FrameSize below{size.width, size.height / 2};
        const auto lower = [&](const Frame& frame) {
            return frame.view().y().part(0, size.height / 4, below.width, below.height);
        };
        EXPECT_GT(difference(lower(first), lower(pictureOf(size, 110, 1))), 0.1) << "the box stands still";
        EXPECT_GT(difference(lower(first), lower(pictureOf(size, 100, 2))), 0.1) << "streams look alike";
    }
}

TEST(AnEffect, IsKnownByItsName) {
    for (const Effect effect : kEffects)
        EXPECT_EQ(parseEffect(effectName(effect)), effect);
    for (const char* name : {"", "Tint", "tint ", "sepia"})
        EXPECT_THROW(parseEffect(name), std::invalid_argument) << name;
}

TEST(AnEffect, LeavesTheCounterReadableInEverySize) {
    for (const FrameSize size : kSizes) {
        for (const Effect effect : kEffects) {
            for (const uint32_t counter : {0u, 0x55555555u, 0xffffffffu, 12345u}) {
                const Frame result = applied(effect, pictureOf(size, counter, 3));
                EXPECT_EQ(readFrameCounter(result.view()), (FrameCounter{counter, 3}))
                    << effectName(effect) << " at " << size.width << "x" << size.height;
            }
        }
    }
}

TEST(AnEffect, IsSeenInThePicture) {
    for (const FrameSize size : kSizes) {
        const Frame source = pictureOf(size);
        EXPECT_EQ(difference(applied(Effect::None, source), source), 0);
        const Frame tinted = applied(Effect::Tint, source);
        EXPECT_EQ(difference(tinted.view().y(), source.view().y()), 0);
        EXPECT_GT(difference(tinted.view().v(), source.view().v()), 15);
        EXPECT_GT(difference(applied(Effect::Mirror, source), source), 3);
        EXPECT_GT(difference(applied(Effect::Blur, source), source), 1);
    }
}

TEST(AMirrorEffect, TurnsTheInsetAroundAndLeavesTheRest) {
    Frame source({640, 480});
    fillArea(source.view(), {0, 0, 640, 480}, kBlack);
    fillArea(source.view(), {0, 0, 320, 480}, {200, 60, 190});  // bright on the left
    const Frame result = applied(Effect::Mirror, source);
    const auto view = result.view();
    const int y = 400;
    EXPECT_LT(view.y().row(y)[460], 40) << "the inset's left half shows the right one";
    EXPECT_GT(view.y().row(y)[560], 180);
    EXPECT_NEAR(view.v().row(y / 2)[560 / 2], 190, 3);
    EXPECT_EQ(difference(view.y().part(0, 0, 390, 480), source.view().y().part(0, 0, 390, 480)), 0);
}

TEST(EveryPicture, StaysInsideTheFrameHoweverSmallAndLong) {
    for (const FrameSize size : {FrameSize{2, 2}, {3, 3}, {7, 5}, {2, 300}, {301, 3}, {47, 31}, {161, 9}}) {
        const GuardedFrame picture(size);
        for (const uint32_t counter : {0u, 1u, 1000u, 0x7fffffffu, 0xffffffffu})
            TestPicture(size, 3).draw(counter, picture.view);
        EXPECT_TRUE(picture.isWhole());
        for (const Effect effect : kEffects) {
            const GuardedFrame result(size);
            EffectFilter(effect, size).apply(pictureOf(size).view(), result.view);
            EXPECT_TRUE(result.isWhole());
        }
    }
    EXPECT_THROW(TestPicture({64, 48}, 4), std::invalid_argument);
}

TEST(AnEffect, RefusesFramesOfAnotherSize) {
    Frame small({64, 48});
    Frame large({128, 96});
    EffectFilter filter(Effect::None, {64, 48});
    EXPECT_THROW(filter.apply(large.view(), small.view()), std::invalid_argument);
    EXPECT_THROW(filter.apply(small.view(), large.view()), std::invalid_argument);
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
    EXPECT_EQ(stats.minNs(), all.front());
    EXPECT_EQ(stats.maxNs(), all.back());
    for (const double percent : {0.0, 1.0, 50.0, 90.0, 99.0, 99.9, 100.0}) {
        const auto rank = std::max<size_t>(1, static_cast<size_t>(std::ceil(percent / 100 * 50000)));
        const auto truth = static_cast<double>(all[rank - 1]);
        EXPECT_GE(static_cast<double>(stats.percentileNs(percent)), truth) << percent;
        EXPECT_LE(static_cast<double>(stats.percentileNs(percent)), truth * (1 + 1.0 / 64)) << percent;
    }
}

TEST(LatencyStats, CountEveryValueThereIsAndPrintMilliseconds) {
    LatencyStats stats;
    EXPECT_EQ(stats.summary(), "no frames");
    EXPECT_EQ(stats.percentileNs(50), 0);
    stats.record(3'100'000);
    EXPECT_EQ(stats.summary(), "1 frame: min 3.10, p50 3.10, p90 3.10, p99 3.10, max 3.10 ms");
    stats.record(-5);
    EXPECT_EQ(stats.minNs(), 0);
    for (int shift = 0; shift < 63; ++shift)
        stats.record(int64_t{1} << shift);
    stats.record(INT64_MAX);
    EXPECT_EQ(stats.count(), 66u);
    EXPECT_EQ(stats.percentileNs(100), INT64_MAX);
}

struct Png {
    explicit Png(const std::string& file) {
        image.version = PNG_IMAGE_VERSION;
        if (png_image_begin_read_from_file(&image, file.c_str()) == 0) return;
        image.format = PNG_FORMAT_RGB;
        rgb.resize(PNG_IMAGE_SIZE(image));
        png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr);
    }
    std::vector<int> pixel(size_t x, size_t y) const {
        const uint8_t* const at = &rgb[(y * image.width + x) * 3];
        return {at[0], at[1], at[2]};
    }
    png_image image{};
    std::vector<uint8_t> rgb;
};

Frame plain(FrameSize size, const Colour& colour) {
    Frame frame(size);
    fillArea(frame.view(), {0, 0, size.width, size.height}, colour);
    return frame;
}

class AContactSheet : public testing::Test {
  protected:
    TemporaryFolder mFolder;
    ContactSheet mSheet;
};

TEST_F(AContactSheet, ShowsCapturedBesideReplacedInColour) {
    const Frame red = plain({640, 480}, {81, 90, 240});
    const Frame blue = plain({641, 481}, {41, 240, 110});
    mSheet.add({0, 12, 12, 3'400'000}, red.view(), blue.view());
    mSheet.add({1, std::nullopt, std::nullopt, std::nullopt}, blue.view(), std::nullopt);
    const std::string file = mFolder.path("new/folders/sheet.png");
    mSheet.write(file);

    const Png png(file);
    ASSERT_EQ(png.image.width, 664u);
    ASSERT_GT(png.image.height, 2 * 240u);
    using testing::ElementsAre, testing::Gt, testing::Lt;
    EXPECT_THAT(png.pixel(160, 140), ElementsAre(Gt(230), Lt(25), Lt(25)));
    EXPECT_THAT(png.pixel(500, 140), ElementsAre(Lt(25), Lt(25), Gt(230)));
    EXPECT_THAT(png.pixel(160, 420), ElementsAre(Lt(25), Lt(25), Gt(230)));
    const auto brightest = *std::max_element(png.rgb.begin(), png.rgb.begin() + 3 * 664 * 24);
    EXPECT_GT(brightest, 200) << "no label above the first row";
}

TEST_F(AContactSheet, HoldsABoundedNumberOfRowsOfAnyShapeAndReplacesAnOlderFile) {
    const FrameSize shapes[] = {{2, 8192}, {8192, 2}, {3, 3}, {640, 480}};
    for (size_t i = 0; i <= ContactSheet::kMaxRows; ++i) {
        const Frame frame = plain(shapes[i % 4], kWhite);
        EXPECT_EQ(mSheet.add({}, frame.view(), frame.view()), i < ContactSheet::kMaxRows);
    }
    mSheet.write(mFolder.write("sheet.png", "older"));
    EXPECT_FALSE(Png(mFolder.path("sheet.png")).rgb.empty());
    EXPECT_THAT(mFolder.names(), testing::ElementsAre("sheet.png"));
}

TEST_F(AContactSheet, LeavesNothingBehindWhereItCannotBeWritten) {
    EXPECT_THROW(mSheet.write(mFolder.path("empty.png")), std::logic_error);
    const Frame frame = plain({64, 48}, kWhite);
    mSheet.add({}, frame.view(), frame.view());
    mFolder.write("file", "no folder");
    std::filesystem::create_directories(mFolder.path("taken.png/inside"));
    for (const std::string& file : {mFolder.path("file/sheet.png"), mFolder.path("taken.png")})
        EXPECT_THROW(mSheet.write(file), std::runtime_error) << file;
    EXPECT_THAT(mFolder.names(), testing::UnorderedElementsAre("file", "taken.png"));
}

}  // namespace
}  // namespace vel::sim
