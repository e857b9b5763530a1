#include "StreamEvents.h"

#include "EventWriter.h"
#include "Timeline.h"

namespace vel::sim {

namespace {
constexpr char kCategory[] = "frame";
constexpr size_t kMaxInFlight = 64;  // more buffers than a queue has
}  // namespace

void StreamEvents::sent(const FrameHeader& frame, int64_t startNs) {
    if (!events::areWanted()) return;
    const JsonObject args = JsonObject().add("frame", frame.counter);
    events::slice(streamTrack(mStream), kCategory, "capture", startNs, frame.captureNs, args);
    events::slice(streamTrack(mStream), kCategory, "out", frame.captureNs, steadyNowNs(), args);
    events::flowStart(streamTrack(mStream), kCategory, "frame", flowIdOf(frame), frame.captureNs);
    mInFlight.push_back(frame.counter);
    if (mInFlight.size() > kMaxInFlight) mInFlight.pop_front();
    tellInFlight();
}

void StreamEvents::replaced(const FrameHeader& frame) {
    if (!events::areWanted()) return;
    events::flowEnd(streamTrack(mStream), kCategory, "frame", flowIdOf(frame), steadyNowNs());
    while (!mInFlight.empty() && mInFlight.front() <= frame.counter)
        mInFlight.pop_front();
    tellInFlight();
}

void StreamEvents::waited(uint32_t frame, int64_t startNs, const char* outcome) {
    if (!events::areWanted()) return;
    events::slice(streamTrack(mStream), kCategory, "take", startNs, steadyNowNs(),
                  JsonObject().add("frame", frame).add("outcome", outcome));
}

void StreamEvents::changed(uint32_t frame, bool isReplacing) {
    if (!events::areWanted()) return;
    JsonObject args;
    args.add("stream", mStream).add("frame", frame);
    const int64_t nowNs = steadyNowNs();
    if (isReplacing) args.add("withoutMs", static_cast<double>(nowNs - mWithoutSinceNs) / 1e6);
    mWithoutSinceNs = nowNs;
    events::instant(streamTrack(mStream), "replacement",
                    "stream " + std::to_string(mStream) +
                        (isReplacing ? ": replacements are back" : ": replacements stop"),
                    args);
}

void StreamEvents::tellInFlight() const {
    events::counter(kCategory, "stream " + std::to_string(mStream) + " in flight",
                    JsonObject().add("frames", mInFlight.size()));
}

}  // namespace vel::sim
