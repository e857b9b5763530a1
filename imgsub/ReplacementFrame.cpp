#include "ReplacementFrame.h"

namespace replacement_frame {

namespace {

constexpr double kBytesPerPixel = 1.5;
constexpr double kBlockBytes = 96.0;
constexpr uint64_t kBlockSize = 96;
constexpr uint64_t kAlignment = 16;
constexpr uint64_t kStreamIndexOffset = 76;  // in the block

// One load of a word that need not be aligned.
struct __attribute__((packed)) Word {
    uint32_t value;
};

// As the device's processor converts: what does not fit becomes the nearest that does.
uint32_t saturated(double value) {
    if (!(value > 0)) return 0;
    return value >= UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(value);
}

// The pixels and the block, rounded up.
uint64_t frameBytes(double pixels) {
    const uint64_t bytes = saturated(kBlockBytes + pixels * kBytesPerPixel);
    return (bytes + kAlignment - 1) / kAlignment * kAlignment;
}

}  // namespace

uint32_t rowBytes(int32_t imageWidth, int32_t imageHeight) {
    const uint32_t pixels = static_cast<uint32_t>(imageWidth) * static_cast<uint32_t>(imageHeight);  // wraps
    return static_cast<uint32_t>(frameBytes(static_cast<int32_t>(pixels)));
}

bool readStreamIndex(const uint8_t* row, size_t byteCount, uint32_t imageWidth, uint32_t imageHeight,
                     uint32_t& streamIndex) {
    const uint32_t pixels = imageWidth * imageHeight;  // wraps
    const uint64_t offset = frameBytes(pixels) - kBlockSize + kStreamIndexOffset;
    if (row == nullptr || offset + sizeof(Word) > byteCount) return false;
    streamIndex = reinterpret_cast<const volatile Word*>(row + offset)->value;
    return true;
}

}  // namespace replacement_frame
