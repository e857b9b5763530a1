#pragma once

#include <cstdint>
#include <string>

namespace vel::sim {

// Where the service's printed times begin: a property of its object on the bus, "x" in ns of the steady
// clock. Peers that were told no origin of their own take it over, so that the lines of all go together.
inline constexpr char kTimelineInterface[] = "korvanta.hardware.camera.desktop.Timeline";
inline constexpr char kOriginProperty[] = "OriginNs";

/** The steady clock in nanoseconds; the same clock in every process of one machine. */
int64_t steadyNowNs();

/**
 * The start of each line of a timeline: "[   12.345 ms] ". Lines of several processes that were given the
 * same origin sort and merge by it.
 */
std::string timelineStamp(int64_t nowNs, int64_t originNs);

/**
 * A message's text as one printable line: control characters and bytes outside ASCII become \xNN, and a text
 * longer than maxBytes is cut with a remark about its length.
 */
std::string printable(const std::string& text, size_t maxBytes = 4096);

}  // namespace vel::sim
