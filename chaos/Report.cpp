#include "Report.h"

#include <algorithm>
#include <cstdio>

namespace vel::chaos {

namespace {

double ms(int64_t ns) {
    return static_cast<double>(ns) / 1e6;
}

std::string described(const BoundedCall& bounded) {
    char text[96];
    std::snprintf(text, sizeof(text), "%.1f of %.0f %s", ms(bounded.call.ns), ms(bounded.boundNs),
                  bounded.call.name);
    return text;
}

std::string spread(std::vector<int64_t> times) {
    std::sort(times.begin(), times.end());
    char text[48];
    std::snprintf(text, sizeof(text), "%.0f, %.0f", ms(times[times.size() / 2]), ms(times.back()));
    return text;
}

std::string change(size_t first, size_t last) {
    return std::to_string(first) + ", " + std::to_string(last);
}

void keepNearest(BoundedCall& nearest, const BoundedCall& other) {
    if (other.share() >= nearest.share()) nearest = other;
}

constexpr char kRow[] = "%-19s | %6s | %-42s | %-36s | %-12s | %-12s | %-11s | %-7s | %s\n";

}  // namespace

void FaultFigures::add(const RoundFigures& round) {
    if (mCommandsNs.empty()) mFirst = round.resources;
    mLast = round.resources;
    keepNearest(mWaiting, round.waiting);
    keepNearest(mNotWaiting, round.notWaiting);
    mCommandsNs.push_back(round.commandNs);
    mFramesNs.push_back(round.frameNs);
}

void FaultFigures::printHead() {
    std::printf(kRow, "fault", "rounds", "longest call that may wait, of its bound",
                "longest that may not, of its bound", "next command", "next frame", "descriptors", "threads",
                "memory");
    std::printf(kRow, "", "", "ms", "ms", "median, max", "median, max", "first, last", "", "KiB");
}

void FaultFigures::print(const char* name) const {
    if (mCommandsNs.empty()) return;
    std::printf(kRow, name, std::to_string(mCommandsNs.size()).c_str(), described(mWaiting).c_str(),
                described(mNotWaiting).c_str(), spread(mCommandsNs).c_str(), spread(mFramesNs).c_str(),
                change(mFirst.descriptors, mLast.descriptors).c_str(),
                change(mFirst.threads, mLast.threads).c_str(),
                change(mFirst.memoryKib, mLast.memoryKib).c_str());
}

}  // namespace vel::chaos
