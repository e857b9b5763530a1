#include "TestPicture.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <string>

#include "Drawing.h"
#include "FrameCounter.h"

namespace vel::sim {
namespace {

// 75 % bars in the BT.601 matrix: white, yellow, cyan, green, magenta, red, blue, black.
constexpr Colour kBars[] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                            {84, 184, 198},  {65, 100, 212}, {35, 212, 114}, {16, 128, 128}};
constexpr int kBarCount = 8;
constexpr Colour kBoxOfStream[] = {{210, 16, 146}, {145, 54, 34}, {106, 202, 222}, {81, 90, 240}};
constexpr uint32_t kStreams = 4;
constexpr int kDigits = 10;

int even(int value) {
    return value / 2 * 2;
}

// There and back again between 0 and the range.
int bounce(uint64_t way, int range) {
    if (range <= 0) return 0;
    const auto period = static_cast<uint64_t>(range) * 2;
    const int place = static_cast<int>(way % period);
    return place <= range ? place : 2 * range - place;
}

uint32_t checkedStream(uint32_t stream) {
    if (stream < kStreams) return stream;
    throw std::invalid_argument("no stream of a camera: " + std::to_string(stream));
}

}  // namespace

TestPicture::TestPicture(FrameSize size, uint32_t stream)
    : mStream(checkedStream(stream)),
      mDot(std::max(1, size.width / 192)),
      mTextLeft(even(size.width / 24)),
      mTextTop(counterStripHeight(size) + even(size.height / 24)),
      mBackground(size) {
    drawBackground();
}

void TestPicture::drawBackground() {
    const FrameView frame = mBackground.view();
    const auto [width, height] = frame.size();
    const int ramp = even(height * 3 / 4);
    fillArea(frame, {0, 0, width, height}, kBlack);
    for (int bar = 0; bar < kBarCount; ++bar) {
        const int left = even(bar * width / kBarCount);
        fillArea(frame, {left, 0, width - left, ramp}, kBars[bar]);
    }
    fillArea(frame, {0, ramp, width, height - ramp}, kBlack);
    for (int x = 0; x < width; ++x)
        frame.y().row(ramp)[x] = static_cast<uint8_t>(16 + 219 * x / width);
    for (int y = ramp + 1; y < height; ++y)
        std::memcpy(frame.y().row(y), frame.y().row(ramp), static_cast<size_t>(width));

    const std::string title = "STREAM " + std::to_string(mStream) + " #";
    fillArea(frame,
             {mTextLeft - 2 * mDot, mTextTop - 2 * mDot,
              textWidth(title, mDot) + kDigits * kTextCellWidth * mDot + 3 * mDot, (kTextHeight + 4) * mDot},
             kBlack);
    drawText(frame, mTextLeft, mTextTop, mDot, title);
}

void TestPicture::drawBox(uint32_t counter, const FrameView& frame) const {
    const auto [width, height] = frame.size();
    const Area box{0, 0, even(width / 8), even(height / 6)};
    const int top = even(mTextTop + (kTextHeight + 4) * mDot);
    const int x =
        bounce(uint64_t{counter} * static_cast<uint64_t>(std::max(2, width / 120)), width - box.width);
    const int y = bounce(uint64_t{counter} * static_cast<uint64_t>(std::max(2, height / 160)),
                         height - top - box.height);
    fillArea(frame, {even(x), top + even(y), box.width, box.height}, kBoxOfStream[mStream]);
}

void TestPicture::draw(uint32_t counter, const FrameView& destination) const {
    if (destination.size() != mBackground.size())
        throw std::invalid_argument("the test picture has another size than the frame");
    copyFrame(mBackground.view(), destination);
    drawBox(counter, destination);
    char digits[kDigits];
    const auto end = std::to_chars(digits, digits + kDigits, counter).ptr;
    drawText(destination, mTextLeft + textWidth("STREAM 0 #", mDot), mTextTop, mDot,
             {digits, static_cast<size_t>(end - digits)});
    stampFrameCounter(destination, {counter, mStream});
}

}  // namespace vel::sim
