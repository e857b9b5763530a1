#include "VendorTags.h"

#include <VelChiDesktopHelper.h>
#include <system/camera_metadata.h>

#include <camera_metadata_hidden.h>

#include <cstring>
#include <iterator>

#include "MetadataChanges.h"

namespace vel::sim {

namespace {

constexpr uint32_t kTagCount = VENDOR_TAGS_END - MAX_STREAM_SIZE;
static_assert(MAX_STREAM_SIZE == static_cast<uint32_t>(VENDOR_SECTION_START));
static_assert(std::size(kVendorTags) == kTagCount);

const VendorTagInfo* find(uint32_t tag) {
    return tag >= MAX_STREAM_SIZE && tag < VENDOR_TAGS_END ? &kVendorTags[tag - MAX_STREAM_SIZE] : nullptr;
}

int tagCount(const vendor_tag_ops_t*) {
    return kTagCount;
}

void allTags(const vendor_tag_ops_t*, uint32_t* tags) {
    for (uint32_t i = 0; i < kTagCount; ++i)
        tags[i] = MAX_STREAM_SIZE + i;
}

const char* sectionName(const vendor_tag_ops_t*, uint32_t tag) {
    return find(tag) != nullptr ? kVendorSection : nullptr;
}

const char* tagName(const vendor_tag_ops_t*, uint32_t tag) {
    return find(tag) != nullptr ? find(tag)->name : nullptr;
}

int tagType(const vendor_tag_ops_t*, uint32_t tag) {
    return find(tag) != nullptr ? find(tag)->type : -1;
}

bool resolve(const char* section, const char* name, unsigned& id) {
    if (std::strcmp(section, kVendorSection) != 0) return false;
    for (uint32_t i = 0; i < kTagCount; ++i) {
        if (std::strcmp(name, kVendorTags[i].name) != 0) continue;
        id = MAX_STREAM_SIZE + i;
        return true;
    }
    return false;
}

}  // namespace

void installVendorTags(VelChiDesktopHelper& helper) {
    static const vendor_tag_ops_t ops = {tagCount, allTags, sectionName, tagName, tagType, {}};
    set_camera_metadata_vendor_ops(&ops);
    helper.setVendorTagCallback(resolve);
}

}  // namespace vel::sim
