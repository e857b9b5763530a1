#include "TagList.h"

#include <system/camera_metadata.h>

#include "JsonObject.h"
#include "MetadataChanges.h"

namespace vel::sim {

namespace {

std::string entry(const std::string& name, int type, bool isVendor) {
    return JsonObject()
        .add("name", name)
        .add("type", camera_metadata_type_names[type])
        .add("vendor", isVendor)
        .text();
}

}  // namespace

std::string tagList() {
    std::string list;
    for (size_t section = 0; section < ANDROID_SECTION_COUNT; ++section) {
        const auto& bounds = camera_metadata_section_bounds[section];
        for (uint32_t tag = bounds[0]; tag < bounds[1]; ++tag) {
            const std::string name =
                std::string(camera_metadata_section_names[section]) + "." + get_camera_metadata_tag_name(tag);
            list += entry(name, get_camera_metadata_tag_type(tag), false) + ",";
        }
    }
    const char* separator = "";
    for (const VendorTagInfo& tag : kVendorTags) {
        list += separator + entry(std::string(kVendorSection) + "." + tag.name, tag.type, true);
        separator = ",";
    }
    return "[" + list + "]";
}

}  // namespace vel::sim
