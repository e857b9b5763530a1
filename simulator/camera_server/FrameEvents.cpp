#include "FrameEvents.h"

#include "EventWriter.h"

namespace vel::sim {

namespace {

JsonObject toJson(const LatencyStats& latency) {
    const auto milliseconds = [](int64_t ns) { return static_cast<double>(ns) / 1e6; };
    JsonObject percentiles;
    percentiles.add("p50", milliseconds(latency.percentileNs(50)));
    percentiles.add("p90", milliseconds(latency.percentileNs(90)));
    percentiles.add("p99", milliseconds(latency.percentileNs(99)));
    return percentiles.add("max", milliseconds(latency.maxNs()));
}

void add(JsonObject& object, const FrameCounts& counts) {
    object.add("sent", counts.sent).add("inTime", counts.replaced).add("late", counts.late);
    object.add("repeated", counts.repeated).add("dropped", counts.dropped).add("copies", counts.copies);
}

}  // namespace

void tellFramesBegin(FrameSize size, size_t streams, int fps) {
    if (!events::areWanted()) return;
    JsonObject args;
    args.add("width", size.width).add("height", size.height).add("streams", streams).add("fps", fps);
    events::instant(Track::FRAMES, "frames", "frames begin", args);
}

void tellSecond(uint32_t stream, const FrameCounts& counts, const LatencyStats& latency) {
    if (!events::areWanted()) return;
    const std::string name = "stream " + std::to_string(stream);
    JsonObject values;
    add(values, counts);
    events::counter("figures", name + " frames", values);
    if (latency.count() > 0) events::counter("figures", name + " latency ms", toJson(latency));
}

void tellFramesEnd(const std::string& outcome, FrameSize size,
                   const std::vector<std::unique_ptr<FrameStream>>& streams, uint64_t previewFrames) {
    if (!events::areWanted()) return;
    std::string figures;
    for (size_t index = 0; index < streams.size(); ++index) {
        JsonObject stream;
        stream.add("stream", index);
        add(stream, streams[index]->counts());
        stream.addJson("latencyMs", toJson(streams[index]->latency()).text());
        figures.append(index > 0 ? "," : "").append(stream.text());
    }
    JsonObject args;
    args.add("outcome", outcome).add("width", size.width).add("height", size.height);
    args.addJson("streams", "[" + figures + "]").add("preview", previewFrames);
    events::instant(Track::FRAMES, "frames", "frames ended", args);
}

}  // namespace vel::sim
