#include "MetadataHandler.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "NarrowToFloat.h"
#include "NeverDestroyed.h"
#include "VelLog.h"

namespace {

constexpr char kLogTag[] = "MetadataHandler";

using rapidjson::Value;
using Allocator = rapidjson::Document::AllocatorType;

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};

constexpr size_t kMaxValueBytes = 8;  // of one value, whatever its type
constexpr size_t kTagNameBytes = 63;  // enough for any standard tag

// Guards the vendor tag callback while it is copied or replaced. A leaf.
android::NeverDestroyed<std::mutex> gVendorTagCallbackLock;

// --- Tag names ---

// The index of the standard section with the longest name that the given name starts with;
// ANDROID_SECTION_COUNT when there is none.
size_t findSection(std::string_view name, size_t* length) {
    static const std::array<std::string_view, ANDROID_SECTION_COUNT> sections = [] {
        std::array<std::string_view, ANDROID_SECTION_COUNT> names;
        for (size_t i = 0; i < names.size(); ++i)
            names[i] = camera_metadata_section_names[i];
        return names;
    }();

    size_t longest = sections.size();
    *length = 0;
    for (size_t i = 0; i < sections.size(); ++i) {
        if (sections[i].size() <= *length || name.compare(0, sections[i].size(), sections[i]) != 0) continue;
        longest = i;
        *length = sections[i].size();
    }
    return longest;
}

bool findTagInSection(size_t section, const char* tagName, unsigned* id) {
    const unsigned end = camera_metadata_section_bounds[section][1];
    for (unsigned tag = camera_metadata_section_bounds[section][0]; tag < end; ++tag) {
        const char* name = get_camera_metadata_tag_name(tag);
        if (name == nullptr || std::strcmp(name, tagName) != 0) continue;
        *id = tag;
        return true;
    }
    return false;
}

// --- Values to JSON ---

template <typename T>
Value toJson(T value, Allocator&) {
    return Value(value);
}

Value toJson(float value, Allocator&) {
    return Value(static_cast<double>(value));
}

Value toJson(const camera_metadata_rational_t& value, Allocator& alloc) {
    Value pair(rapidjson::kArrayType);
    pair.Reserve(2, alloc).PushBack(value.numerator, alloc).PushBack(value.denominator, alloc);
    return pair;
}

template <typename T>
Value toJsonArray(const T* values, size_t count, Allocator& alloc) {
    Value array(rapidjson::kArrayType);
    array.Reserve(static_cast<rapidjson::SizeType>(count), alloc);
    for (size_t i = 0; i < count; ++i)
        array.PushBack(toJson(values[i], alloc), alloc);
    return array;
}

Value toJsonArray(const camera_metadata_entry_t& entry, unsigned tag, int type, Allocator& alloc) {
    switch (type) {
        case TYPE_BYTE:
            return toJsonArray(entry.data.u8, entry.count, alloc);
        case TYPE_INT32:
            return toJsonArray(entry.data.i32, entry.count, alloc);
        case TYPE_FLOAT:
            return toJsonArray(entry.data.f, entry.count, alloc);
        case TYPE_INT64:
            return toJsonArray(entry.data.i64, entry.count, alloc);
        case TYPE_DOUBLE:
            return toJsonArray(entry.data.d, entry.count, alloc);
        case TYPE_RATIONAL:
            return toJsonArray(entry.data.r, entry.count, alloc);
        default:
            VEL_LOGE("Type not defined for tagId: %d!", static_cast<int>(tag));
            return Value(rapidjson::kArrayType);
    }
}

// Whether an entry holds fewer bytes than its tag's type promises: reading it would leave the buffer.
bool isNarrower(uint8_t entryType, int tagType) {
    if (entryType >= NUM_TYPES || tagType < 0 || tagType >= NUM_TYPES) return false;
    return camera_metadata_type_size[entryType] < camera_metadata_type_size[tagType];
}

// --- JSON to values ---

bool fromJson(const Value& element, uint8_t& out) {
    out = static_cast<uint8_t>(element.IsUint64() ? element.GetUint64() : element.GetInt64());
    return true;
}

bool fromJson(const Value& element, int32_t& out) {
    out = element.GetInt();
    return true;
}

bool fromJson(const Value& element, float& out) {
    out = android::narrowToFloat(element.GetDouble());
    return true;
}

bool fromJson(const Value& element, int64_t& out) {
    out = element.GetInt64();
    return true;
}

bool fromJson(const Value& element, double& out) {
    out = element.GetDouble();
    return true;
}

bool fromJson(const Value& element, camera_metadata_rational_t& out) {
    if (!element.IsArray() || element.Size() != 2) {
        VEL_LOGE("rational parse failed, not expected array");
        return false;
    }
    out = {element[0].GetInt(), element[1].GetInt()};
    return true;
}

template <typename T>
bool readValues(const Value& array, void* out) {
    static_assert(sizeof(T) <= kMaxValueBytes, "the buffer has no room for more");
    T* next = static_cast<T*>(out);
    for (const Value& element : array.GetArray()) {
        if (!fromJson(element, *next++)) return false;
    }
    return true;
}

bool readValues(const Value& array, unsigned tag, void* out) {
    switch (get_camera_metadata_tag_type(tag)) {
        case TYPE_BYTE:
            return readValues<uint8_t>(array, out);
        case TYPE_INT32:
            return readValues<int32_t>(array, out);
        case TYPE_FLOAT:
            return readValues<float>(array, out);
        case TYPE_INT64:
            return readValues<int64_t>(array, out);
        case TYPE_DOUBLE:
            return readValues<double>(array, out);
        case TYPE_RATIONAL:
            return readValues<camera_metadata_rational_t>(array, out);
        default:
            VEL_LOGE("Type not defined for tagId: %d!", static_cast<int>(tag));
            return false;
    }
}

// Zeroed room for values of any type; few of them need no heap.
class ValueBuffer {
  public:
    explicit ValueBuffer(size_t count)
        : mHeap(count > kInlineValues ? std::calloc(count, kMaxValueBytes) : nullptr),
          mData(count > kInlineValues ? mHeap.get() : mInline) {}

    void* data() { return mData; }  // null when there was no memory

  private:
    static constexpr size_t kInlineValues = 32;

    alignas(kMaxValueBytes) unsigned char mInline[kInlineValues * kMaxValueBytes] = {};
    const std::unique_ptr<void, Free> mHeap;
    void* const mData;
};

// --- Metadata buffers ---

camera_metadata_t* bufferOf(const DesktopCaptureMetadata& md) {
    return md.metadata != nullptr ? *md.metadata : nullptr;
}

size_t dataSizeOf(unsigned tag, unsigned count) {
    return calculate_camera_metadata_entry_data_size(static_cast<uint8_t>(get_camera_metadata_tag_type(tag)),
                                                     count);
}

// Whether the status of an add or update is good; logs it otherwise.
bool isSet(int status, const camera_metadata_t* buffer, unsigned tag, unsigned count) {
    if (status == 0) return true;
    VEL_LOGE("DTM: failed (rc=%d) to add tag %d size %zu, data_count %zu, data_size %zu", status,
             static_cast<int>(tag), dataSizeOf(tag, count), get_camera_metadata_data_count(buffer),
             get_camera_metadata_data_capacity(buffer));
    return false;
}

// Gives a capture without metadata a buffer for one entry.
bool createBuffer(DesktopCaptureMetadata& md, size_t dataSize) {
    if (md.metadata != nullptr) *md.metadata = allocate_camera_metadata(1, dataSize);
    if (bufferOf(md) == nullptr) {
        VEL_LOGE("DTM: metadata is still null");
        return false;
    }
    md.isMetadataReplaced = true;
    return true;
}

// Replaces the buffer by a copy with room for just one more entry.
bool growBuffer(DesktopCaptureMetadata& md, size_t dataSize) {
    const camera_metadata_t* old = *md.metadata;
    camera_metadata_t* grown = allocate_camera_metadata(get_camera_metadata_entry_count(old) + 1,
                                                        get_camera_metadata_data_count(old) + dataSize);
    if (grown != nullptr && append_camera_metadata(grown, old) != 0) {
        VEL_LOGE("metadata failed to append");
        free_camera_metadata(grown);
        return false;
    }
    if (validate_camera_metadata_structure(grown, nullptr) != 0) {  // so is a failed allocation
        VEL_LOGE("metadata struct not vaild");
        return false;
    }
    md.isMetadataReplaced = true;
    *md.metadata = grown;
    return true;
}

}  // namespace

MetadataHandler::~MetadataHandler() = default;

void MetadataHandler::setVendorTagCallback(VendorTagCallback callback) {
    // The replaced callback is destroyed with the argument, after the lock is released.
    std::lock_guard<std::mutex> lock(gVendorTagCallbackLock.get());
    mVendorTagCallback.swap(callback);
}

void MetadataHandler::setRequestsOfInterest(const Value& list) {
    setTagsOfInterest(mRequestsOfInterest, list);
}

void MetadataHandler::setResultsOfInterest(const Value& list) {
    setTagsOfInterest(mResultsOfInterest, list);
}

void MetadataHandler::setTagsOfInterest(TagIds& filter, const Value& list) {
    std::lock_guard<std::mutex> lock(mLock);
    filter.clear();
    if (!list.IsArray()) return;

    for (const Value& element : list.GetArray()) {
        if (!element.IsString()) continue;
        const char* name = element.GetString();
        unsigned id = 0;
        if (findMetadataTagId(name, &id)) {
            filter[name] = id;
        } else {
            VEL_LOGE("Unable to find tag: %s", name);
        }
    }
}

void MetadataHandler::convertFromMetadata(DesktopCaptureMetadata& md, Value& out, Allocator& alloc) {
    std::lock_guard<std::mutex> lock(mLock);
    const TagIds& filter = md.isRequest ? mRequestsOfInterest : mResultsOfInterest;
    for (const auto& [name, id] : filter) {
        const int type = get_camera_metadata_tag_type(id);
        camera_metadata_entry_t entry = {};
        entry.type = static_cast<uint8_t>(type);  // what holds when find does not tell
        if (find_camera_metadata_entry(bufferOf(md), id, &entry) != 0) continue;
        if (isNarrower(entry.type, type)) {
            VEL_LOGE("Type not defined for tagId: %d!", static_cast<int>(id));
            continue;
        }
        Value array = toJsonArray(entry, id, type, alloc);
        Value key(name.data(), static_cast<rapidjson::SizeType>(name.size()), alloc);
        out.AddMember(key, array, alloc);
    }
}

void MetadataHandler::convertToMetadata(DesktopCaptureMetadata& md, Value& in) {
    const camera_metadata_t* const original = bufferOf(md);
    std::string name;  // one for all members saves an allocation for each
    name.reserve(kTagNameBytes);
    for (const auto& member : in.GetObject()) {
        camera_metadata_t* const before = bufferOf(md);
        name = member.name.GetString();
        convertMember(md, name, member.value);
        // A buffer that was made for an earlier member and outgrown is known to nobody else.
        if (bufferOf(md) != before && before != original) free_camera_metadata(before);
    }
}

void MetadataHandler::convertMember(DesktopCaptureMetadata& md, const std::string& name,
                                    const Value& values) {
    if (!values.IsArray()) {
        VEL_LOGE("Expecting array for: %s", name.c_str());
        return;
    }
    unsigned id = 0;
    if (!resolveTagId(name, &id)) {
        VEL_LOGE("Unable to find tag: %s", name.c_str());
        return;
    }
    ValueBuffer buffer(values.Size());
    const bool set = buffer.data() != nullptr && readValues(values, id, buffer.data()) &&
                     setMetadataEntry(md, id, buffer.data(), values.Size());
    if (!set) VEL_LOGE("Failed to set metadata for %s", name.c_str());
}

bool MetadataHandler::resolveTagId(const std::string& name, unsigned* id) {
    std::lock_guard<std::mutex> lock(mLock);
    for (const TagIds* filter : {&mResultsOfInterest, &mRequestsOfInterest}) {
        const auto known = filter->find(name);
        if (known == filter->end()) continue;
        *id = known->second;
        return true;
    }
    return findMetadataTagId(name.c_str(), id);
}

bool MetadataHandler::findMetadataTagId(const char* name, unsigned* id) {
    if (name == nullptr || id == nullptr) return false;
    const std::string_view text(name);
    size_t split;
    const size_t section = findSection(text, &split);
    const bool isStandard = section < ANDROID_SECTION_COUNT;
    if (!isStandard) split = text.rfind('.');
    if (split == std::string_view::npos || split + 1 >= text.size()) return false;
    return isStandard ? findTagInSection(section, name + split + 1, id) : findVendorTag(name, split, id);
}

bool MetadataHandler::findVendorTag(const char* name, size_t sectionLength, unsigned* id) const {
    VendorTagCallback callback;
    {
        std::lock_guard<std::mutex> lock(gVendorTagCallbackLock.get());
        callback = mVendorTagCallback;
    }
    if (!callback) {
        VEL_LOGE("vendor tag not initalized yet");
        return false;
    }
    const std::unique_ptr<char, Free> section(strndup(name, sectionLength));
    if (!section) {
        VEL_LOGE("Failed to allocate vendor name");
        return false;
    }
    unsigned found = 0;
    if (!callback(section.get(), name + sectionLength + 1, found)) {
        VEL_LOGE("Failed to get vendor tag");
        return false;
    }
    *id = found;
    return true;
}

bool MetadataHandler::setMetadataEntry(DesktopCaptureMetadata& md, unsigned tag, void* data, unsigned count) {
    camera_metadata_entry_t entry = {};
    if (bufferOf(md) != nullptr && find_camera_metadata_entry(*md.metadata, tag, &entry) == 0) {
        const int status = update_camera_metadata_entry(*md.metadata, entry.index, data, count, nullptr);
        return isSet(status, *md.metadata, tag, count);
    }
    const size_t dataSize = dataSizeOf(tag, count);
    const bool hasRoom = bufferOf(md) != nullptr ? growBuffer(md, dataSize) : createBuffer(md, dataSize);
    return hasRoom &&
           isSet(add_camera_metadata_entry(*md.metadata, tag, data, count), *md.metadata, tag, count);
}
