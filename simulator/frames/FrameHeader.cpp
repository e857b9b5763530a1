#include "FrameHeader.h"

#include <cstring>

namespace vel::sim {

namespace {

constexpr size_t kBlockBytes = 96;
constexpr size_t kAlignment = 16;

// Places in the block.
constexpr size_t kCounterAt = 0;
constexpr size_t kCopiesAt = 4;
constexpr size_t kCaptureAt = 8;
constexpr size_t kMemoryAt = 16;
constexpr size_t kStreamAt = 76;

size_t blockStart(FrameSize size) {
    return frameRowBytes(size) - kBlockBytes;
}

template <typename Value>
void put(uint8_t* to, const Value& value) {
    std::memcpy(to, &value, sizeof(value));
}

template <typename Value>
void get(const uint8_t* from, Value& value) {
    std::memcpy(&value, from, sizeof(value));
}

}  // namespace

size_t frameRowBytes(FrameSize size) {
    return (frameBytes(size) + kBlockBytes + kAlignment - 1) / kAlignment * kAlignment;
}

void writeFrameHeader(uint8_t* row, FrameSize size, const FrameHeader& header) {
    uint8_t* const block = row + blockStart(size);
    put(block + kCounterAt, header.counter);
    put(block + kCopiesAt, header.copiesMade);
    put(block + kCaptureAt, header.captureNs);
    put(block + kMemoryAt, header.memory);
    put(block + kStreamAt, header.stream);
}

FrameHeader readFrameHeader(const uint8_t* row, FrameSize size) {
    const uint8_t* const block = row + blockStart(size);
    FrameHeader header;
    get(block + kCounterAt, header.counter);
    get(block + kCopiesAt, header.copiesMade);
    get(block + kCaptureAt, header.captureNs);
    get(block + kMemoryAt, header.memory);
    get(block + kStreamAt, header.stream);
    return header;
}

// No stream captures twice in a nanosecond.
uint64_t flowIdOf(const FrameHeader& header) {
    return static_cast<uint64_t>(header.captureNs) << 2 | (header.stream & 3);
}

void copyFrameHeader(const uint8_t* from, uint8_t* to, FrameSize size) {
    std::memcpy(to + blockStart(size), from + blockStart(size), kBlockBytes);
}

}  // namespace vel::sim
