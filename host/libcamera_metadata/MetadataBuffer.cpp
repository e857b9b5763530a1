#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <system/camera_metadata.h>

#include <algorithm>

// A block of memory holds, one after the other: this header, room for the entries, and room for the values
// that do not fit in their entries. Positions are in bytes from the start of the block, so that it can be
// moved as a whole. It may come to stand at a multiple of 4 only, which validation then tells.
struct __attribute__((packed, aligned(4))) camera_metadata {
    uint32_t size;  // of the block
    uint32_t version;
    uint32_t flags;
    uint32_t entryCount;
    uint32_t entryCapacity;
    uint32_t entriesStart;
    uint32_t dataCount;
    uint32_t dataCapacity;
    uint32_t dataStart;
    uint32_t padding;
    uint64_t vendorId;
};

namespace {

constexpr int kOk = 0;
constexpr int kError = 1;

constexpr uint32_t kVersion = 1;
constexpr uint32_t kSorted = 1;  // flag
constexpr size_t kAlignment = 8;

struct Entry {
    uint32_t tag;
    uint32_t count;
    union {
        uint32_t offset;   // in the data area, of values that take more than 4 bytes
        uint8_t value[4];  // the values themselves otherwise
    } data;
    uint8_t type;
    uint8_t reserved[3];
};

static_assert(sizeof(camera_metadata) == 48 && sizeof(Entry) == 16, "the device's layout");

constexpr uint64_t alignUp(uint64_t bytes) {
    return (bytes + kAlignment - 1) / kAlignment * kAlignment;
}

// Not const even in a const block: the one find serves readers and writers.
uint8_t* at(const camera_metadata_t* metadata, uint32_t position) {
    return reinterpret_cast<uint8_t*>(const_cast<camera_metadata_t*>(metadata)) + position;
}

Entry* entriesOf(const camera_metadata_t* metadata) {
    return reinterpret_cast<Entry*>(at(metadata, metadata->entriesStart));
}

uint8_t* dataOf(const camera_metadata_t* metadata) {
    return at(metadata, metadata->dataStart);
}

size_t dataSize(const Entry& entry) {
    return calculate_camera_metadata_entry_data_size(entry.type, entry.count);
}

void* valuesOf(const camera_metadata_t* metadata, Entry& entry) {
    return dataSize(entry) ? dataOf(metadata) + entry.data.offset : entry.data.value;
}

void copyValues(void* to, const void* from, uint8_t type, size_t count) {
    if (count) memcpy(to, from, count * camera_metadata_type_size[type]);
}

// Takes an entry's values out of the data area and closes the gap.
void removeData(camera_metadata_t* metadata, const Entry& entry) {
    const size_t size = dataSize(entry);
    const uint32_t offset = entry.data.offset;
    uint8_t* start = dataOf(metadata) + offset;
    memmove(start, start + size, metadata->dataCount - offset - size);
    metadata->dataCount -= size;
    for (Entry* other = entriesOf(metadata); other != entriesOf(metadata) + metadata->entryCount; ++other) {
        if (dataSize(*other) && other->data.offset > offset) other->data.offset -= size;
    }
}

// Stores an entry's values, in a fresh piece of the data area when they do not fit in the entry.
void appendData(camera_metadata_t* metadata, Entry& entry, const void* data) {
    const size_t size = dataSize(entry);
    if (size) {
        entry.data.offset = metadata->dataCount;
        metadata->dataCount += size;
    }
    copyValues(valuesOf(metadata, entry), data, entry.type, entry.count);
}

bool areasAreInside(const camera_metadata_t& metadata) {
    const uint64_t entriesEnd =
        uint64_t{metadata.entriesStart} + uint64_t{metadata.entryCapacity} * sizeof(Entry);
    const uint64_t dataEnd = uint64_t{metadata.dataStart} + metadata.dataCapacity;
    return metadata.entryCount <= metadata.entryCapacity && metadata.dataCount <= metadata.dataCapacity &&
           metadata.entriesStart >= sizeof(metadata) && metadata.entriesStart % alignof(Entry) == 0 &&
           entriesEnd <= metadata.dataStart && dataEnd <= metadata.size;
}

bool isEntryValid(const camera_metadata_t& metadata, const Entry& entry) {
    if (entry.type >= NUM_TYPES) return false;
    if (entry.tag < VENDOR_SECTION_START && entry.type != get_camera_metadata_tag_type(entry.tag))
        return false;
    if (entry.count == 0) return entry.data.offset == 0;
    // Only where size_t has 32 bits can the size of the values exceed it.
    if (entry.count > (SIZE_MAX - kAlignment) / camera_metadata_type_size[entry.type]) return false;
    const size_t size = dataSize(entry);
    if (size == 0) return true;
    const uint64_t position = uint64_t{metadata.dataStart} + entry.data.offset;
    return position % kAlignment == 0 && entry.data.offset + uint64_t{size} <= metadata.dataCapacity;
}

Entry* findEntry(const camera_metadata_t* metadata, uint32_t tag) {
    Entry* begin = entriesOf(metadata);
    Entry* end = begin + metadata->entryCount;
    Entry* found =
        metadata->flags & kSorted
            ? std::lower_bound(begin, end, tag, [](const Entry& e, uint32_t t) { return e.tag < t; })
            : std::find_if(begin, end, [tag](const Entry& e) { return e.tag == tag; });
    return found != end && found->tag == tag ? found : nullptr;
}

template <typename PublicEntry>
void describe(const camera_metadata_t* metadata, Entry& entry, PublicEntry* out) {
    out->index = &entry - entriesOf(metadata);
    out->tag = entry.tag;
    out->type = entry.type;
    out->count = entry.count;
    out->data.u8 = static_cast<uint8_t*>(valuesOf(metadata, entry));
}

template <typename PublicEntry>
int find(const camera_metadata_t* metadata, uint32_t tag, PublicEntry* out) {
    if (!metadata) return kError;
    Entry* entry = findEntry(metadata, tag);
    if (!entry) return -ENOENT;
    describe(metadata, *entry, out);
    return kOk;
}

}  // namespace

camera_metadata_t* allocate_camera_metadata(size_t entry_capacity, size_t data_capacity) {
    const uint64_t entries = entry_capacity;
    const uint64_t dataBytes = data_capacity;
    if (entries > UINT32_MAX || dataBytes > UINT32_MAX) return nullptr;
    const uint64_t dataStart = alignUp(sizeof(camera_metadata) + entries * sizeof(Entry));
    const uint64_t size = alignUp(dataStart + dataBytes);
    // Where size_t has 32 bits the size wraps below, as on the device.
    if (sizeof(size_t) > sizeof(uint32_t) && size > UINT32_MAX) return nullptr;

    auto* metadata = static_cast<camera_metadata_t*>(calloc(1, static_cast<size_t>(size)));
    if (metadata == nullptr) return nullptr;
    metadata->size = size;
    metadata->version = kVersion;
    metadata->entryCapacity = entry_capacity;
    metadata->entriesStart = sizeof(camera_metadata);
    metadata->dataCapacity = data_capacity;
    metadata->dataStart = dataStart;
    metadata->vendorId = CAMERA_METADATA_INVALID_VENDOR_ID;
    return metadata;
}

camera_metadata_t* clone_camera_metadata(const camera_metadata_t* src) {
    if (src == nullptr) return nullptr;
    camera_metadata_t* clone = allocate_camera_metadata(src->entryCount, src->dataCount);
    if (clone != nullptr) append_camera_metadata(clone, src);
    return clone;
}

void free_camera_metadata(camera_metadata_t* metadata) {
    free(metadata);
}

size_t get_camera_metadata_size(const camera_metadata_t* metadata) {
    return metadata->size;
}

size_t get_camera_metadata_entry_count(const camera_metadata_t* metadata) {
    return metadata->entryCount;
}

size_t get_camera_metadata_entry_capacity(const camera_metadata_t* metadata) {
    return metadata->entryCapacity;
}

size_t get_camera_metadata_data_count(const camera_metadata_t* metadata) {
    return metadata->dataCount;
}

size_t get_camera_metadata_data_capacity(const camera_metadata_t* metadata) {
    return metadata->dataCapacity;
}

int validate_camera_metadata_structure(const camera_metadata_t* metadata, const size_t* expected_size) {
    if (metadata == nullptr) return CAMERA_METADATA_VALIDATION_ERROR;
    if (expected_size != nullptr && metadata->size > *expected_size) return CAMERA_METADATA_VALIDATION_ERROR;
    if (!areasAreInside(*metadata)) return CAMERA_METADATA_VALIDATION_ERROR;

    const Entry* entries = entriesOf(metadata);
    const bool valid = std::all_of(entries, entries + metadata->entryCount,
                                   [metadata](const Entry& entry) { return isEntryValid(*metadata, entry); });
    if (!valid) return CAMERA_METADATA_VALIDATION_ERROR;
    const bool shifted = reinterpret_cast<uintptr_t>(metadata) % kAlignment != 0;
    return shifted ? CAMERA_METADATA_VALIDATION_SHIFTED : kOk;
}

int append_camera_metadata(camera_metadata_t* dst, const camera_metadata_t* src) {
    if (dst == nullptr || src == nullptr) return kError;
    if (uint64_t{dst->entryCount} + src->entryCount > dst->entryCapacity) return kError;
    if (uint64_t{dst->dataCount} + src->dataCount > dst->dataCapacity) return kError;
    const bool bothHaveVendors = dst->vendorId != CAMERA_METADATA_INVALID_VENDOR_ID &&
                                 src->vendorId != CAMERA_METADATA_INVALID_VENDOR_ID;
    if (bothHaveVendors && dst->vendorId != src->vendorId) return kError;

    Entry* added = entriesOf(dst) + dst->entryCount;
    std::copy_n(entriesOf(src), src->entryCount, added);
    std::copy_n(dataOf(src), src->dataCount, dataOf(dst) + dst->dataCount);
    std::for_each(added, added + src->entryCount, [dst](Entry& entry) {
        if (dataSize(entry)) entry.data.offset += dst->dataCount;
    });

    if (dst->entryCount == 0) {
        dst->flags |= src->flags & kSorted;
    } else if (src->entryCount != 0) {
        dst->flags &= ~kSorted;
    }
    if (dst->vendorId == CAMERA_METADATA_INVALID_VENDOR_ID) dst->vendorId = src->vendorId;
    dst->entryCount += src->entryCount;
    dst->dataCount += src->dataCount;
    return kOk;
}

size_t calculate_camera_metadata_entry_data_size(uint8_t type, size_t data_count) {
    if (type >= NUM_TYPES) return 0;
    const size_t bytes = data_count * camera_metadata_type_size[type];
    return bytes <= sizeof(Entry::data) ? 0 : alignUp(bytes);
}

int add_camera_metadata_entry(camera_metadata_t* dst, uint32_t tag, const void* data, size_t data_count) {
    const int type = get_camera_metadata_tag_type(tag);
    if (dst == nullptr || type < 0 || type >= NUM_TYPES) return kError;
    if (dst->entryCount == dst->entryCapacity) return kError;
    if (data_count && data == nullptr) return kError;
    const uint64_t size = calculate_camera_metadata_entry_data_size(type, data_count);
    if (dst->dataCount + size > dst->dataCapacity) return kError;

    Entry& entry = entriesOf(dst)[dst->entryCount];
    entry = {};
    entry.tag = tag;
    entry.type = type;
    entry.count = data_count;
    appendData(dst, entry, data);
    ++dst->entryCount;
    dst->flags &= ~kSorted;
    return kOk;
}

int find_camera_metadata_entry(camera_metadata_t* src, uint32_t tag, camera_metadata_entry_t* entry) {
    return find(src, tag, entry);
}

int find_camera_metadata_ro_entry(const camera_metadata_t* src, uint32_t tag,
                                  camera_metadata_ro_entry_t* entry) {
    return find(src, tag, entry);
}

int get_camera_metadata_ro_entry(const camera_metadata_t* src, size_t index,
                                 camera_metadata_ro_entry_t* entry) {
    if (src == nullptr || entry == nullptr || index >= src->entryCount) return kError;
    describe(src, entriesOf(src)[index], entry);
    return kOk;
}

int update_camera_metadata_entry(camera_metadata_t* dst, size_t index, const void* data, size_t data_count,
                                 camera_metadata_entry_t* updated_entry) {
    if (dst == nullptr || index >= dst->entryCount) return kError;
    if (data_count && data == nullptr) return kError;
    Entry& entry = entriesOf(dst)[index];
    const size_t oldSize = dataSize(entry);
    const uint64_t newSize = calculate_camera_metadata_entry_data_size(entry.type, data_count);
    if (dst->dataCount - oldSize + newSize > dst->dataCapacity) return kError;

    if (newSize == oldSize) {
        entry.count = data_count;
        copyValues(valuesOf(dst, entry), data, entry.type, data_count);
    } else {
        if (oldSize) removeData(dst, entry);
        entry.count = data_count;
        appendData(dst, entry, data);
    }
    if (updated_entry != nullptr) describe(dst, entry, updated_entry);
    return kOk;
}

int sort_camera_metadata(camera_metadata_t* dst) {
    if (dst == nullptr) return kError;
    std::stable_sort(entriesOf(dst), entriesOf(dst) + dst->entryCount,
                     [](const Entry& left, const Entry& right) { return left.tag < right.tag; });
    dst->flags |= kSorted;
    return kOk;
}
