#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <numeric>
#include <string>

#include "TemporaryFolder.h"
#include "VideoInput.h"
#include "Y4mReader.h"
#include "Y4mWriter.h"

namespace vel::sim {
namespace {

using testing::AllOf, testing::EndsWith, testing::HasSubstr, testing::StartsWith;

// The text of the error that the action throws; a remark when it throws none.
template <typename Action>
std::string errorOf(Action action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(no error)";
}

// Delivers a text in pieces of at most that many bytes.
ReadBytes piecesOf(std::string text, size_t piece) {
    return [text = std::move(text), piece, at = size_t{0}](void* to, size_t count) mutable {
        const size_t given = std::min({piece, count, text.size() - at});
        text.copy(static_cast<char*>(to), given, at);
        at += given;
        return given;
    };
}

std::string frameOf(uint8_t value, size_t bytes = frameBytes({4, 2})) {
    return "FRAME\n" + std::string(bytes, static_cast<char>(value));
}

bool hasChildren() {
    return waitid(P_ALL, 0, nullptr, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

TEST(AY4mReader, ReadsFramesHoweverTheBytesArrive) {
    const std::string stream = "YUV4MPEG2 W4 H2 F30000:1001 Ip A1:1 C420mpeg2 XYSCSS=420MPEG2\n" +
                               frameOf(1) + "FRAME Ip Xany\n" + std::string(12, '\2');
    for (const size_t piece : {size_t{1}, size_t{5}, size_t{4096}}) {
        Y4mReader reader("in", piecesOf(stream, piece));
        EXPECT_EQ(reader.size(), (FrameSize{4, 2}));
        EXPECT_EQ(reader.rate().frames, 30000);
        EXPECT_EQ(reader.rate().seconds, 1001);
        Frame frame(reader.size());
        for (uint8_t value = 1; value <= 2; ++value) {
            ASSERT_TRUE(reader.readFrame(frame.view()));
            EXPECT_EQ(frame.view().v().row(0)[1], value);
        }
        EXPECT_FALSE(reader.readFrame(frame.view()));
    }
}

// Errors of the header that no frame follows, and of what follows one frame.
TEST(AY4mReader, SaysWhyAStreamIsRefusedAndTellsABrokenFrameFromTheEnd) {
    const std::string start = "YUV4MPEG2 ", good = start + "W4 H2\n" + frameOf(1);
    const std::pair<std::string, std::string> rows[] = {
        {"hello, world\n", "is not a YUV4MPEG2 stream"},
        {"YUV4", "ends inside the header"},
        {start + "W4 H2 X" + std::string(5000, 'x') + "\n", "endless header"},
        {start + "W4\n", "without width or height"},
        {start + "W99999999999 H2\n", "broken header field W99999999999"},
        {start + "W8194 H2\n", "8194x2, only sides of 2 to 8192"},
        {start + "W5 H2\n", "5x2, only even"},
        {start + "W4 H2 C444\n", "chroma '444', only 8-bit 4:2:0"},
        {good, "(no error)"},
        {good + frameOf(2, 5), "in: ends inside frame 1, after 5 of 12 bytes"},
        {good + "FRA", "ends inside the header of frame 1"},
        {good + "more than a frame", "FRAME expected of frame 1"},
    };
    for (const auto& [text, reason] : rows) {
        const auto readAll = [&text = text] {
            Y4mReader reader("in", piecesOf(text, 7));
            Frame frame({4, 2});
            while (reader.readFrame(frame.view())) {
            }
        };
        EXPECT_THAT(errorOf(readAll), HasSubstr(reason));
    }
}

// The last column and row of an odd size have no chroma.
TEST(AY4mWriter, LeavesOutTheLastColumnAndRowOfAnOddSize) {
    const TemporaryFolder folder;
    Frame frame({5, 3});
    std::iota(frame.view().block(), frame.view().block() + frame.view().bytes(), uint8_t{0});
    Y4mWriter writer(folder.path("odd"), frame.size(), {25, 1});
    writer.writeFrame(frame.view());
    writer.close();

    const std::string samples = {0, 1, 2, 3, 5, 6, 7, 8, 15, 16, 17, 18};
    EXPECT_THAT(folder.read("odd"),
                AllOf(StartsWith("YUV4MPEG2 W4 H2 F25:1 "), EndsWith("\nFRAME\n" + samples)));
}

// Video files, made by ffmpeg itself.
class AVideoInput : public testing::Test {
  protected:
    void SetUp() override {
        if (std::system("ffmpeg -version >/dev/null 2>&1") != 0) GTEST_SKIP() << "ffmpeg is not installed";
    }
    // Nothing may be left behind, whatever happened.
    void TearDown() override { EXPECT_FALSE(hasChildren()); }

    // A clip of that many moving pictures a second, two seconds long.
    std::string clip(const std::string& rate = "10") {
        const std::string file = mFolder.path("clip.mp4");
        const std::string command =
            "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=320x240:duration=2:rate=" + rate +
            " -c:v libx264 -preset ultrafast -pix_fmt yuv420p '" + file + "'";
        EXPECT_EQ(std::system(command.c_str()), 0);
        return file;
    }
    static int countFrames(VideoInput& input) {
        Frame frame(input.size());
        int count = 0;
        while (input.readFrame(frame.view()))
            ++count;
        return count;
    }
    // What is said about frames of a program that stands in for ffmpeg: it sends a header, then does what the
    // script says. $$ is its process.
    std::string decodedBy(const std::string& script) {
        mFolder.write("ffmpeg", "#!/bin/sh\nprintf 'YUV4MPEG2 W4 H2\\n'\n" + script + "\n");
        std::filesystem::permissions(mFolder.path("ffmpeg"), std::filesystem::perms::owner_all);
        const std::string file = mFolder.write("any", "any");
        const std::string path = getenv("PATH");
        setenv("PATH", (mFolder.path("") + ":" + path).c_str(), 1);
        VideoInput input(file);
        setenv("PATH", path.c_str(), 1);
        return errorOf([&] { EXPECT_EQ(countFrames(input), 1); });
    }

    const TemporaryFolder mFolder;
};

TEST_F(AVideoInput, DecodesAClipWhateverItsName) {
    const std::string here = std::filesystem::current_path();
    std::filesystem::current_path(mFolder.path(""));
    for (const char* name : {"-f", "100%d.mp4", "http:clip", "with blank 'n\nnewline"}) {
        std::filesystem::rename(clip(), name);
        VideoInput input(name);
        EXPECT_EQ(input.rate().frames, 10 * input.rate().seconds);
        EXPECT_EQ(countFrames(input), 20) << name;
    }
    std::filesystem::current_path(here);
}

TEST_F(AVideoInput, LeavesNoDecoderBehindWhenItGoesEarly) {
    VideoInput input(clip("500"));
    Frame frame(input.size());
    EXPECT_TRUE(input.readFrame(frame.view()));
    EXPECT_TRUE(hasChildren()) << "ffmpeg still has most of it to deliver";
}

TEST_F(AVideoInput, TellsHowItsDecoderEndedAndIsNeverBlockedByItsComplaints) {
    const std::string oneFrame = "printf 'FRAME\\n123456789012'\n";
    EXPECT_THAT(decodedBy("kill -9 $$"), HasSubstr("ended by signal 9"));
    EXPECT_THAT(decodedBy(oneFrame + "echo 'the disk is gone' >&2\nexit 3"),
                HasSubstr("decoded: the disk is gone"));
    EXPECT_EQ(decodedBy("head -c 3000000 /dev/zero | tr '\\0' x >&2\n" + oneFrame), "(no error)");
}

}  // namespace
}  // namespace vel::sim
