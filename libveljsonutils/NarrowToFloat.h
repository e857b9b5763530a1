#pragma once

#include <algorithm>
#include <cmath>
#include <limits>

namespace android {

/**
 * The float nearest to the number, which is an infinity for numbers beyond float's range. Rounds as the
 * hardware does, without relying on an out-of-range conversion.
 */
inline float narrowToFloat(double value) {
    constexpr double kMax = std::numeric_limits<float>::max();
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    constexpr double kFirstInfinite = 0x1.ffffffp127;  // halfway from kMax to the next power of two
    if (std::fabs(value) >= kFirstInfinite) return value < 0 ? -kInfinity : kInfinity;
    return static_cast<float>(std::clamp(value, -kMax, kMax));
}

}  // namespace android
