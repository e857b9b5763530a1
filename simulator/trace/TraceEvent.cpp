#include "TraceEvent.h"

#include <cinttypes>
#include <cstdio>

#include "Program.h"
#include "Timeline.h"

namespace vel::sim {

namespace {

// Microseconds with three decimals: no nanosecond is lost.
std::string microseconds(int64_t ns) {
    char text[32];
    const int64_t whole = ns < 0 ? -ns : ns;
    std::snprintf(text, sizeof(text), "%s%" PRId64 ".%03" PRId64, ns < 0 ? "-" : "", whole / 1000,
                  whole % 1000);
    return text;
}

// A flow's is a text: not every reader takes numbers of 64 bits. In hexadecimal, as viewers expect it.
std::string idText(char phase, uint64_t id) {
    if (phase == 'b' || phase == 'e') return std::to_string(id);
    char text[24];
    std::snprintf(text, sizeof(text), "\"0x%" PRIx64 "\"", id);
    return text;
}

}  // namespace

std::string TraceEvent::line() const {
    JsonObject event;
    event.add("ph", std::string(1, phase)).add("cat", category).add("name", name);
    event.addJson("ts", microseconds(timeNs - timeOriginNs()));
    if (endNs) event.addJson("dur", microseconds(*endNs - timeNs));
    event.add("pid", static_cast<int>(peer)).add("tid", static_cast<int>(track));
    if (id) event.addJson("id", idText(phase, *id));
    if (phase == 'i') event.add("s", "t");
    if (phase == 'f') event.add("bp", "e");  // ends in the slice around it, not in the next one
    return event.addJson("args", args.text()).text();
}

std::string faultLine(const std::string& peer, const std::string& what, const std::string& action) {
    TraceEvent event;
    event.category = "fault";
    event.name = peer + " " + what;
    event.track = Track::FAULTS;
    event.timeNs = steadyNowNs();
    event.args.add("peer", peer).add("action", action);
    return event.line();
}

}  // namespace vel::sim
