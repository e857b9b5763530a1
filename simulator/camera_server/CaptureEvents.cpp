#include "CaptureEvents.h"

#include <system/camera_metadata.h>

#include <camera_metadata_hidden.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "EventWriter.h"
#include "LatencyArgs.h"

namespace vel::sim {

namespace {

std::string nameOf(uint32_t tag) {
    const char* const section = get_camera_metadata_section_name(tag);
    const char* const name = get_camera_metadata_tag_name(tag);
    return std::string(section != nullptr ? section : "unknown") + "." + (name != nullptr ? name : "unknown");
}

std::string shortest(double number) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.9g", number);
    return text;
}

std::string valueOf(const camera_metadata_ro_entry_t& entry, size_t index) {
    switch (entry.type) {
        case TYPE_BYTE:
            return std::to_string(entry.data.u8[index]);
        case TYPE_INT32:
            return std::to_string(entry.data.i32[index]);
        case TYPE_INT64:
            return std::to_string(entry.data.i64[index]);
        case TYPE_FLOAT:
            return shortest(static_cast<double>(entry.data.f[index]));
        case TYPE_DOUBLE:
            return shortest(entry.data.d[index]);
        case TYPE_RATIONAL:
            break;
        default:
            return "null";
    }
    const camera_metadata_rational_t& rational = entry.data.r[index];
    return "[" + std::to_string(rational.numerator) + "," + std::to_string(rational.denominator) + "]";
}

std::string valuesOf(const camera_metadata_ro_entry_t& entry) {
    std::string values;
    for (size_t index = 0; index < entry.count; ++index)
        values.append(index > 0 ? "," : "").append(valueOf(entry, index));
    return "[" + values + "]";
}

bool isIn(const camera_metadata_t* buffer, const camera_metadata_ro_entry_t& entry) {
    camera_metadata_ro_entry_t other = {};
    return find_camera_metadata_ro_entry(buffer, entry.tag, &other) == 0 && other.count == entry.count &&
           std::memcmp(other.data.u8, entry.data.u8, entry.count * camera_metadata_type_size[entry.type]) ==
               0;
}

}  // namespace

void tellExchange(uint32_t fwkId, uint32_t frame, bool isRequest, int64_t startNs, int64_t endNs) {
    if (!events::areWanted()) return;
    events::slice(capturesTrack(fwkId), "exchange", isRequest ? "request" : "result", startNs, endNs,
                  JsonObject().add("frame", frame));
}

void tellChanges(uint32_t fwkId, uint32_t frame, bool isRequest, const camera_metadata_t* before,
                 const camera_metadata_t* now) {
    if (!events::areWanted() || before == nullptr) return;
    JsonObject changes;
    for (size_t index = 0; index < get_camera_metadata_entry_count(now); ++index) {
        camera_metadata_ro_entry_t entry = {};
        if (get_camera_metadata_ro_entry(now, index, &entry) == 0 && !isIn(before, entry))
            changes.addJson(nameOf(entry.tag).c_str(), valuesOf(entry));
    }
    if (changes.isEmpty()) return;
    events::instant(capturesTrack(fwkId), "metadata", isRequest ? "request taken" : "result taken",
                    JsonObject().add("frame", frame).addJson("changes", changes.text()));
}

void tellExchangeTimes(const LatencyStats& second) {
    if (events::areWanted())
        events::counter("figures", "exchange us", latencyArgs(second, 1e3).add("count", second.count()));
}

void tellCapturesEnd(uint32_t fwkId, uint32_t frames, const LatencyStats& all) {
    if (!events::areWanted()) return;
    JsonObject args;
    args.add("camera", fwkId).add("frames", frames).add("exchanges", all.count());
    events::instant(Track::FIGURES, "figures", "captures ended",
                    args.addJson("us", latencyArgs(all, 1e3).text()));
}

}  // namespace vel::sim
