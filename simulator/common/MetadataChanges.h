#pragma once

#include <system/camera_metadata.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vel::sim {

/**
 * A change that the desktop application makes to captures. The camera server knows it too, and looks whether
 * its captures took it.
 */
struct MetadataChange {
    const char* name;      // the full name of the tag
    uint32_t tag;          // its id, whose values are int32, or rationals of two
    bool isRequest;        // of requests, else of results
    uint32_t everyFrames;  // frame 0, and one at each such distance
    bool isRational;
    std::vector<int32_t> (*values)(uint32_t frame);  // a rational's are numerator and denominator

    bool applies(uint32_t frame, bool toRequest) const {
        return toRequest == isRequest && frame % everyFrames == 0;
    }
    /** How many of the frames 0 to frames - 1 it applies to. */
    uint32_t countAmong(uint32_t frames) const { return (frames + everyFrames - 1) / everyFrames; }
};

const std::vector<MetadataChange>& metadataChanges();

// The vendor tags of the simulated sensor.
constexpr char kVendorSection[] = "com.brisel.zint.velc2d";
constexpr char kMaxStreamSizeName[] = "com.brisel.zint.velc2d.MaxStreamSize";
constexpr char kSensorTemperatureName[] = "com.brisel.zint.velc2d.SensorTemperature";
struct VendorTagInfo {
    const char* name;  // in the section
    int type;
};
constexpr VendorTagInfo kVendorTags[] = {{"MaxStreamSize", TYPE_INT32}, {"SensorTemperature", TYPE_FLOAT}};
enum VendorTag : uint32_t { MAX_STREAM_SIZE = 0x80000000, SENSOR_TEMPERATURE, VENDOR_TAGS_END };

}  // namespace vel::sim
