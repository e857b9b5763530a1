#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "JsonObject.h"
#include "Tracks.h"

namespace vel::sim {

/**
 * One event of a trace. Phases, as the trace event format has them: X slice, i instant, C counter, b and e
 * begin and end of what needs no thread, s, t and f the start, a step and the end of a flow, whose time lies
 * within the slice that it belongs to.
 */
struct TraceEvent {
    char phase = 'i';
    const char* category = "";
    std::string name;
    Peer peer = Peer::RUN;
    Track track = Track::COMMANDS;
    int64_t timeNs = 0;              // of the steady clock
    std::optional<int64_t> endNs{};  // of a slice
    std::optional<uint64_t> id{};    // the same for those that belong together: b and e (below 2^53); s, t, f
    JsonObject args{};

    /** The event as a line of JSON, without a newline; its time counts from timeOriginNs(). */
    std::string line() const;
};

/** The line of what is done to a peer, or happens to it, now, as in ("app", "killed", "restart"). */
std::string faultLine(const std::string& peer, const std::string& what, const std::string& action);

}  // namespace vel::sim
