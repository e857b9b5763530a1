#pragma once

#include <camera_metadata_hidden.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <memory>
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

// Adds an entry whose values are given in the tag's own type; the add's status.
template <typename T>
int addValues(camera_metadata_t* buffer, uint32_t tag, const std::vector<T>& values) {
    return add_camera_metadata_entry(buffer, tag, values.data(), values.size());
}

// The values of a tag's entry; empty also when the tag is absent.
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

// One vendor section whose tags have the ids VENDOR_SECTION_START, + 1 and so on; the process knows them
// while this lives. At most one may live at a time.
class VendorTags {
  public:
    struct Tag {
        const char* name;
        int type;
    };

    VendorTags(const char* section, std::initializer_list<Tag> tags) : mSection(section), mTags(tags) {
        mOps.base = {count, all, section_name, tag_name, tag_type, {}};
        mOps.self = this;
        set_camera_metadata_vendor_ops(&mOps.base);
    }
    ~VendorTags() { set_camera_metadata_vendor_ops(nullptr); }
    VendorTags(const VendorTags&) = delete;
    VendorTags& operator=(const VendorTags&) = delete;

    // As a HAL's resolver of vendor tag names would.
    bool find(const std::string& section, const std::string& name, unsigned& id) const {
        const auto tag =
            std::find_if(mTags.begin(), mTags.end(), [&](const Tag& t) { return t.name == name; });
        if (section != mSection || tag == mTags.end()) return false;
        id = static_cast<unsigned>(VENDOR_SECTION_START + (tag - mTags.begin()));
        return true;
    }

  private:
    struct Ops {
        vendor_tag_ops_t base;
        VendorTags* self;
    };

    static const VendorTags& of(const vendor_tag_ops_t* ops) {
        return *reinterpret_cast<const Ops*>(ops)->self;
    }
    static const Tag* at(const vendor_tag_ops_t* ops, uint32_t tag) {
        const size_t index = tag - VENDOR_SECTION_START;
        return index < of(ops).mTags.size() ? &of(ops).mTags[index] : nullptr;
    }
    static int count(const vendor_tag_ops_t* ops) { return static_cast<int>(of(ops).mTags.size()); }
    static void all(const vendor_tag_ops_t* ops, uint32_t* tags) {
        for (size_t i = 0; i < of(ops).mTags.size(); ++i)
            tags[i] = static_cast<uint32_t>(VENDOR_SECTION_START + i);
    }
    static const char* section_name(const vendor_tag_ops_t* ops, uint32_t tag) {
        return at(ops, tag) ? of(ops).mSection.c_str() : nullptr;
    }
    static const char* tag_name(const vendor_tag_ops_t* ops, uint32_t tag) {
        return at(ops, tag) ? at(ops, tag)->name : nullptr;
    }
    static int tag_type(const vendor_tag_ops_t* ops, uint32_t tag) {
        return at(ops, tag) ? at(ops, tag)->type : -1;
    }

    const std::string mSection;
    const std::vector<Tag> mTags;
    Ops mOps = {};
};
