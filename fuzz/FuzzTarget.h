#pragma once

#include <android/log.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

// What every fuzz target has: its entrance, and how it finds a fault.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

inline void require(bool condition) {
    if (!condition) std::abort();
}

/** The input as a row of decisions; all zero after its end. */
class Bytes {
  public:
    Bytes(const uint8_t* data, size_t size) : mAt(data), mEnd(data + size) {}

    bool empty() const { return mAt == mEnd; }
    template <typename Value>
    Value next() {
        Value value{};
        const size_t count = std::min(sizeof(value), left());
        std::memcpy(&value, mAt, count);
        mAt += count;
        return value;
    }
    uint32_t below(uint32_t limit) { return next<uint8_t>() % limit; }
    template <typename Value, size_t COUNT>
    const Value& oneOf(const Value (&values)[COUNT]) {
        return values[below(COUNT)];
    }
    /** Up to a newline, which is passed over, or the end. */
    std::string line() {
        const auto* const end = static_cast<const uint8_t*>(std::memchr(mAt, '\n', left()));
        const std::string text(mAt, end != nullptr ? end : mEnd);
        mAt = end != nullptr ? end + 1 : mEnd;
        return text;
    }
    std::string rest() { return std::string(mAt, mEnd); }

  private:
    size_t left() const { return static_cast<size_t>(mEnd - mAt); }

    const uint8_t* mAt;
    const uint8_t* const mEnd;
};

// Nothing is logged from the start of the process on.
inline const bool kSilent =
    (__android_log_set_logger([](const __android_logger_data*, const char*) {}), true);
