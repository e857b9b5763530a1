#include "SessionRecord.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>
#include <utility>

#include "AtomicFile.h"
#include "JsonObject.h"
#include "TraceFile.h"

namespace vel::sim {

namespace {

constexpr size_t kMaxSummaries = 100;

void keepNewest(std::deque<std::string>& texts, const std::string& text) {
    texts.push_back(text);
    if (texts.size() > kMaxSummaries) texts.pop_front();
}

template <typename Texts>
std::string jsonArray(const Texts& texts, const char* separator = ",") {
    std::string array = "[";
    const char* before = "";
    for (const std::string& text : texts)
        array.append(std::exchange(before, separator)).append(text);
    return array + "]";
}

}  // namespace

bool SessionRecord::add(const std::string& line) {
    ParsedEvent event;
    if (!event.parse(line)) return false;
    std::lock_guard<std::mutex> lock(mLock);
    noteFigures(event);
    mEntries.push_back({line, event.isForPage(), event.category == "camera" ? event.name : ""});
    mBytes += line.size();
    while (mEntries.size() > kMaxEvents || mBytes > kMaxBytes)
        dropOldest();
    return true;
}

void SessionRecord::noteFigures(const ParsedEvent& event) {
    mEndNs = std::max(mEndNs, event.timeNs + event.durationNs);
    if (event.category == "message" && event.phase == 'b') ++mMessages;
    if (event.category == "frames" && event.name == "frames ended") keepNewest(mFrames, event.args);
    if (event.category == "figures" && event.name == "captures ended") keepNewest(mCaptures, event.args);
}

void SessionRecord::dropOldest() {
    Entry& oldest = mEntries.front();
    mBytes -= oldest.line.size();
    if (!oldest.camera.empty()) mLostCameras[oldest.camera] = std::move(oldest.line);
    mEntries.pop_front();
}

std::string SessionRecord::figures() const {
    std::lock_guard<std::mutex> lock(mLock);
    JsonObject figures;
    figures.add("durationSeconds", static_cast<double>(mEndNs) / 1e9).add("messages", mMessages);
    figures.addJson("frames", jsonArray(mFrames)).addJson("captures", jsonArray(mCaptures));
    return figures.text();
}

void SessionRecord::writeTrace(const std::string& file) const {
    std::vector<std::string> lines;
    {
        std::lock_guard<std::mutex> lock(mLock);
        std::transform(mEntries.begin(), mEntries.end(), std::back_inserter(lines),
                       [](const Entry& entry) { return entry.line; });
    }
    writeTraceFile(file, lines);
}

std::vector<std::string> SessionRecord::linesForPage() const {
    std::lock_guard<std::mutex> lock(mLock);
    std::vector<std::string> newest;
    std::set<std::string> cameras;  // seen
    size_t left = kMaxPageEvents;
    for (auto entry = mEntries.rbegin(); entry != mEntries.rend(); ++entry) {
        const bool isNewestOfCamera = !entry->camera.empty() && cameras.insert(entry->camera).second;
        if (!entry->isForPage || (left == 0 && !isNewestOfCamera)) continue;
        newest.push_back(entry->line);
        if (left > 0) --left;
    }
    for (const auto& [camera, line] : mLostCameras) {
        if (cameras.count(camera) == 0) newest.push_back(line);
    }
    std::reverse(newest.begin(), newest.end());
    return newest;
}

void SessionRecord::writeSession(const std::string& file) const {
    const std::string figuresText = figures();
    const std::string events = jsonArray(linesForPage(), ",\n");
    AtomicFile target(file);
    std::fprintf(target.stream(), "{\"format\":1,\"figures\":%s,\n\"events\":%s}\n", figuresText.c_str(),
                 events.c_str());
    target.putInPlace();
}

}  // namespace vel::sim
