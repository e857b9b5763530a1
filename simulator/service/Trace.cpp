#include "Trace.h"

#include <cstdio>

#include "Timeline.h"

using vel::sim::printable;

void Trace::message(const std::string& from, const std::string& to, const std::string& text) const {
    if (mEnabled) print(from + " -> " + to + "   " + printable(text));
}

void Trace::reply(const std::string& from, const std::string& to, const std::string& text) const {
    if (mEnabled) print(from + " => " + to + "   reply " + printable(text));
}

void Trace::error(const std::string& from, const std::string& to, const std::string& text) const {
    if (mEnabled) print(from + " => " + to + "   error " + printable(text));
}

void Trace::event(const std::string& text) const {
    if (mEnabled) print(printable(text));
}

void Trace::print(const std::string& line) const {
    const std::string whole = vel::sim::timelineStamp(vel::sim::steadyNowNs(), mOriginNs) + line + "\n";
    std::fwrite(whole.data(), 1, whole.size(), stdout);
    std::fflush(stdout);
}
