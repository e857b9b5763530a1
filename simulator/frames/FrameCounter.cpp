#include "FrameCounter.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

#include "Drawing.h"

namespace vel::sim {
namespace {

// The cells from left to right, as bits from high to low, 1 white: 4 of head, 2 of stream, 32 of counter,
// 8 of checksum, 2 of tail. Head and tail alternate, which also gives the levels of black and white.
constexpr int kCells = 48;
constexpr uint64_t kHead = 0b1010;
constexpr uint64_t kTail = 0b01;
constexpr int kMinContrast = 48;  // of the 219 that are drawn

uint8_t checksum(uint32_t stream, uint32_t counter) {
    uint64_t rest = (static_cast<uint64_t>(stream) << 32 | counter) << 8;  // CRC-8, polynomial 0x107
    rest ^= uint64_t{0xff} << 34;                                          // all zero is no valid code
    for (int bit = 41; bit >= 8; --bit) {
        if ((rest >> bit & 1) != 0) rest ^= uint64_t{0x107} << (bit - 8);
    }
    return static_cast<uint8_t>(rest);
}

uint64_t encode(const FrameCounter& counter) {
    uint64_t code = kHead << 2 | counter.stream;
    code = code << 32 | counter.counter;
    code = code << 8 | checksum(counter.stream, counter.counter);
    return code << 2 | kTail;
}

std::optional<FrameCounter> decode(uint64_t code) {
    const FrameCounter counter{static_cast<uint32_t>(code >> 10), static_cast<uint32_t>(code >> 42 & 3)};
    if (encode(counter) != code) return std::nullopt;
    return counter;
}

int cellStart(int cell, int width) {
    return cell * width / kCells;
}

// The mean brightness of the cell's middle, where a blur reaches last.
int cellLevel(const Plane<const uint8_t>& luma, int cell, int stripHeight) {
    const int start = cellStart(cell, luma.width);
    const int width = cellStart(cell + 1, luma.width) - start;
    const int left = start + width * 3 / 8;
    const int right = std::max(left + 1, start + width * 5 / 8);
    int sum = 0;
    int count = 0;
    for (int y = stripHeight * 3 / 8; y < stripHeight * 5 / 8; ++y) {
        for (int x = left; x < right; ++x, ++count)
            sum += luma.row(y)[x];
    }
    return sum / count;
}

}  // namespace

int counterStripHeight(FrameSize size) {
    if (size.width < kCells || size.height < 8) return 0;
    return std::max(8, size.height / 27) / 2 * 2;
}

bool stampFrameCounter(const FrameView& frame, const FrameCounter& counter) {
    if (counter.stream > 3) throw std::invalid_argument("a frame counter knows streams 0 to 3 only");
    const int height = counterStripHeight(frame.size());
    if (height == 0) return false;
    const uint64_t code = encode(counter);
    for (int cell = 0; cell < kCells; ++cell) {
        const int start = cellStart(cell, frame.y().width);
        const int end = cellStart(cell + 1, frame.y().width);
        const bool white = (code >> (kCells - 1 - cell) & 1) != 0;
        std::memset(frame.y().row(0) + start, white ? kWhite.y : kBlack.y, static_cast<size_t>(end - start));
    }
    for (int y = 1; y < height; ++y)
        std::memcpy(frame.y().row(y), frame.y().row(0), static_cast<size_t>(frame.y().width));
    for (const auto& chroma : {frame.u(), frame.v()})
        std::memset(chroma.data, 128, static_cast<size_t>(chroma.stride) * static_cast<size_t>(height / 2));
    return true;
}

std::optional<FrameCounter> readFrameCounter(const ConstFrameView& frame) {
    const int height = counterStripHeight(frame.size());
    if (height == 0) return std::nullopt;
    std::array<int, kCells> levels{};
    for (int cell = 0; cell < kCells; ++cell)
        levels[static_cast<size_t>(cell)] = cellLevel(frame.y(), cell, height);
    const int white = (levels[0] + levels[2]) / 2;
    const int black = (levels[1] + levels[3]) / 2;
    if (white - black < kMinContrast) return std::nullopt;
    const int middle = (white + black) / 2;
    const int doubt = (white - black) / 16;
    uint64_t code = 0;
    for (const int level : levels) {
        if (std::abs(level - middle) <= doubt) return std::nullopt;
        code = code << 1 | (level > middle ? 1 : 0);
    }
    return decode(code);
}

}  // namespace vel::sim
