#pragma once

#include <cstdint>
#include <string>

namespace vel::sim {

/** What readers need of an event's line. */
struct ParsedEvent {
    char phase = 0;  // see TraceEvent
    std::string category;
    std::string name;
    std::string id;          // empty when it has none
    int64_t timeNs = 0;      // since the session's time origin
    int64_t durationNs = 0;  // of a slice
    int peer = 0;
    int track = 0;
    std::string args;  // a JSON object

    /** Whether a page shows it; what happens to each frame and each capture is for the trace alone. */
    bool isForPage() const { return category != "frame" && category != "exchange"; }

    /** False when the line is no event; the object then tells nothing. */
    bool parse(const std::string& line);
};

}  // namespace vel::sim
