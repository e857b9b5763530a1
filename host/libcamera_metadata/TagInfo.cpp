#include "TagInfo.h"

#include <camera_metadata_hidden.h>

const size_t camera_metadata_type_size[NUM_TYPES] = {sizeof(uint8_t), sizeof(int32_t),
                                                     sizeof(float),   sizeof(int64_t),
                                                     sizeof(double),  sizeof(camera_metadata_rational_t)};

const char* camera_metadata_type_names[NUM_TYPES] = {"byte", "int32", "float", "int64", "double", "rational"};

namespace {

const vendor_tag_ops_t* gVendorOps = nullptr;

bool isVendorTag(uint32_t tag) {
    return tag >= VENDOR_SECTION_START;
}

// Null for a tag that no section holds.
const TagInfo* findStandardTag(uint32_t tag) {
    const uint32_t section = tag >> 16;
    if (section >= ANDROID_SECTION_COUNT || tag >= camera_metadata_section_bounds[section][1]) return nullptr;
    return &kTagInfo[section][tag & 0xffff];
}

}  // namespace

int set_camera_metadata_vendor_ops(const vendor_tag_ops_t* ops) {
    gVendorOps = ops;
    return 0;
}

const char* get_camera_metadata_section_name(uint32_t tag) {
    if (isVendorTag(tag))
        return gVendorOps != nullptr ? gVendorOps->get_section_name(gVendorOps, tag) : nullptr;
    const uint32_t section = tag >> 16;
    return section < ANDROID_SECTION_COUNT ? camera_metadata_section_names[section] : nullptr;
}

const char* get_camera_metadata_tag_name(uint32_t tag) {
    if (isVendorTag(tag)) return gVendorOps != nullptr ? gVendorOps->get_tag_name(gVendorOps, tag) : nullptr;
    const TagInfo* info = findStandardTag(tag);
    return info != nullptr ? info->name : nullptr;
}

int get_camera_metadata_tag_type(uint32_t tag) {
    if (isVendorTag(tag)) return gVendorOps != nullptr ? gVendorOps->get_tag_type(gVendorOps, tag) : -1;
    const TagInfo* info = findStandardTag(tag);
    return info != nullptr ? info->type : -1;
}
