#pragma once

#include <system/camera_metadata.h>

#include <camera_metadata_hidden.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

struct FreeCameraMetadata {
    void operator()(camera_metadata_t* buffer) const { free_camera_metadata(buffer); }
};
using CameraMetadata = std::unique_ptr<camera_metadata_t, FreeCameraMetadata>;

inline CameraMetadata makeMetadata(size_t entries, size_t dataBytes) {
    return CameraMetadata(allocate_camera_metadata(entries, dataBytes));
}

/** Adds an entry whose values are given in the tag's own type; the add's status. */
template <typename T>
int addValues(camera_metadata_t* buffer, uint32_t tag, const std::vector<T>& values) {
    return add_camera_metadata_entry(buffer, tag, values.data(), values.size());
}

/** The values of a tag's entry; empty also when the tag is absent. */
template <typename T>
std::vector<T> valuesOf(const camera_metadata_t* buffer, uint32_t tag) {
    camera_metadata_ro_entry_t entry = {};
    if (find_camera_metadata_ro_entry(buffer, tag, &entry) != 0) return {};
    const T* first = reinterpret_cast<const T*>(entry.data.u8);
    return std::vector<T>(first, first + entry.count);
}

inline bool hasTag(const camera_metadata_t* buffer, uint32_t tag) {
    camera_metadata_ro_entry_t entry;
    return find_camera_metadata_ro_entry(buffer, tag, &entry) == 0;
}

inline bool operator==(const camera_metadata_rational_t& left, const camera_metadata_rational_t& right) {
    return left.numerator == right.numerator && left.denominator == right.denominator;
}

/**
 * One vendor section whose tags have the ids VENDOR_SECTION_START, + 1 and so on; the process knows them
 * while this lives. At most one may live at a time.
 */
class VendorTags {
  public:
    struct Tag {
        const char* name;
        int type;
    };

    VendorTags(const char* section, std::initializer_list<Tag> tags) : mSection(section), mTags(tags) {
        static const vendor_tag_ops_t ops = {
            [](const vendor_tag_ops_t*) { return static_cast<int>(sKnown->mTags.size()); },
            [](const vendor_tag_ops_t*, uint32_t* ids) {
                std::iota(ids, ids + sKnown->mTags.size(), uint32_t{VENDOR_SECTION_START});
            },
            [](const vendor_tag_ops_t*, uint32_t id) {
                return at(id) != nullptr ? sKnown->mSection.c_str() : nullptr;
            },
            [](const vendor_tag_ops_t*, uint32_t id) { return at(id) != nullptr ? at(id)->name : nullptr; },
            [](const vendor_tag_ops_t*, uint32_t id) { return at(id) != nullptr ? at(id)->type : -1; },
            {}};
        sKnown = this;
        set_camera_metadata_vendor_ops(&ops);
    }
    ~VendorTags() { set_camera_metadata_vendor_ops(nullptr); }
    VendorTags(const VendorTags&) = delete;
    VendorTags& operator=(const VendorTags&) = delete;

    /** As a HAL's resolver of vendor tag names. */
    std::function<bool(const char* section, const char* name, unsigned& id)> resolver() const {
        return [this](const std::string& section, const std::string& name, unsigned& id) {
            const auto tag =
                std::find_if(mTags.begin(), mTags.end(), [&](const Tag& t) { return t.name == name; });
            if (section != mSection || tag == mTags.end()) return false;
            id = static_cast<unsigned>(VENDOR_SECTION_START + (tag - mTags.begin()));
            return true;
        };
    }

  private:
    static const Tag* at(uint32_t id) {
        const size_t index = id - VENDOR_SECTION_START;
        return index < sKnown->mTags.size() ? &sKnown->mTags[index] : nullptr;
    }

    static inline VendorTags* sKnown;
    const std::string mSection;
    const std::vector<Tag> mTags;
};
