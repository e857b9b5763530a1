#include "TraceFile.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <utility>

#include "AtomicFile.h"
#include "JsonObject.h"
#include "ParsedEvent.h"
#include "Tracks.h"

namespace vel::sim {

namespace {

struct Line {
    const std::string* text;
    ParsedEvent event;
    bool isLeftOut = false;
};

using Lines = std::vector<Line>;

bool isFlow(char phase) {
    return phase == 's' || phase == 't' || phase == 'f';
}

// By time; of slices that begin together the one around the others first.
Lines parsedByTime(const std::vector<std::string>& texts) {
    Lines lines;
    for (const std::string& text : texts) {
        Line line{&text, {}};
        if (!line.event.parse(text)) continue;
        line.event.args.clear();  // not needed
        lines.push_back(std::move(line));
    }
    std::stable_sort(lines.begin(), lines.end(), [](const Line& left, const Line& right) {
        const ParsedEvent &one = left.event, &other = right.event;
        if (one.timeNs != other.timeNs) return one.timeNs < other.timeNs;
        return one.durationNs > other.durationNs;
    });
    return lines;
}

// Leaves out flows, and parts of flows, that do not lead from one start to one end.
void keepWholeFlows(Lines& lines) {
    std::map<std::string, std::vector<Line*>> flows;
    for (Line& line : lines) {
        if (isFlow(line.event.phase)) flows[line.event.category + " " + line.event.id].push_back(&line);
    }
    for (auto& [id, flow] : flows) {
        const auto count = [&parts = flow](char phase) {
            return std::count_if(parts.begin(), parts.end(),
                                 [&](const Line* line) { return line->event.phase == phase; });
        };
        if (flow.front()->event.phase == 's' && flow.back()->event.phase == 'f' && count('s') == 1 &&
            count('f') == 1) {
            continue;
        }
        for (Line* line : flow)
            line->isLeftOut = true;
    }
}

// Leaves ends without a beginning out; returns the ends that are missing.
std::vector<std::string> endOpenOnes(Lines& lines) {
    std::map<std::string, const Line*> open;
    int64_t endNs = 0;
    for (Line& line : lines) {
        const ParsedEvent& event = line.event;
        endNs = std::max(endNs, event.timeNs + event.durationNs);
        const std::string key = std::to_string(event.peer) + " " + event.category + " " + event.id;
        if (event.phase == 'b') line.isLeftOut = !open.emplace(key, &line).second;
        if (event.phase == 'e') line.isLeftOut = open.erase(key) == 0;
    }
    std::vector<std::string> ends;
    for (const auto& [key, line] : open) {
        JsonObject end;
        end.add("ph", "e").add("cat", line->event.category).add("name", line->event.name);
        end.add("ts", static_cast<double>(endNs) / 1000);
        end.add("pid", line->event.peer).add("tid", line->event.track);
        end.addJson("id", line->event.id).addJson("args", R"({"error":"it was not answered"})");
        ends.push_back(end.text());
    }
    return ends;
}

std::string nameLine(const char* what, int peer, int track, const std::string& name) {
    JsonObject line;
    line.add("ph", "M").add("name", what).add("pid", peer).add("tid", track);
    return line.addJson("args", JsonObject().add("name", name).text()).text();
}

std::vector<std::string> names(const Lines& lines) {
    std::map<int, std::set<int>> tracks;
    for (const Line& line : lines) {
        if (!line.isLeftOut) tracks[line.event.peer].insert(line.event.track);
    }
    std::vector<std::string> result;
    for (const auto& [peer, tracksOfPeer] : tracks) {
        result.push_back(nameLine("process_name", peer, 0, peerName(peer)));
        for (const int track : tracksOfPeer)
            result.push_back(nameLine("thread_name", peer, track, trackName(track)));
    }
    return result;
}

}  // namespace

void writeTraceFile(const std::string& file, const std::vector<std::string>& lines) {
    Lines events = parsedByTime(lines);
    keepWholeFlows(events);
    const std::vector<std::string> ends = endOpenOnes(events);
    AtomicFile target(file);
    const char* separator = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n";
    const auto write = [&](const std::string& line) {
        std::fprintf(target.stream(), "%s%s", std::exchange(separator, ",\n"), line.c_str());
    };
    for (const std::string& line : names(events))
        write(line);
    for (const Line& line : events) {
        if (!line.isLeftOut) write(*line.text);
    }
    for (const std::string& line : ends)
        write(line);
    std::fputs(events.empty() ? "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[]}\n" : "\n]}\n",
               target.stream());
    target.putInPlace();
}

}  // namespace vel::sim
