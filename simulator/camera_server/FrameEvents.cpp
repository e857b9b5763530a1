#include "FrameEvents.h"

#include "EventWriter.h"
#include "LatencyArgs.h"

namespace vel::sim {

namespace {

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
    if (latency.count() > 0) events::counter("figures", name + " latency ms", latencyArgs(latency, 1e6));
}

void tellFramesEnd(const std::string& outcome, FrameSize size,
                   const std::vector<std::unique_ptr<FrameStream>>& streams, uint64_t previewFrames) {
    if (!events::areWanted()) return;
    std::string figures;
    for (size_t index = 0; index < streams.size(); ++index) {
        JsonObject stream;
        stream.add("stream", index);
        add(stream, streams[index]->counts());
        stream.addJson("latencyMs", latencyArgs(streams[index]->latency(), 1e6).text());
        figures.append(index > 0 ? "," : "").append(stream.text());
    }
    JsonObject args;
    args.add("outcome", outcome).add("width", size.width).add("height", size.height);
    args.addJson("streams", "[" + figures + "]").add("preview", previewFrames);
    events::instant(Track::FRAMES, "frames", "frames ended", args);
}

}  // namespace vel::sim
