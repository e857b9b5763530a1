// The platform library's rules, as the device's library keeps them.
#include <gtest/gtest.h>
#include <system/graphics.h>  // the distribution's own system/ directory must stay reachable beside ours

#include <cstring>
#include <vector>

#include "CameraMetadata.h"

namespace {

// Names and types of the tags are tested with the library that exports them.
static_assert(ANDROID_SECTION_COUNT == 30 && VENDOR_SECTION == 0x8000);
static_assert(ANDROID_CONTROL_AE_MODE == 0x10003 && ANDROID_SENSOR_TIMESTAMP == 0xe0010);
static_assert(ANDROID_HEIC_INFO_END == 0x1d0002);

constexpr uint32_t kByteTag = ANDROID_CONTROL_AE_MODE;
constexpr uint32_t kInt32Tag = ANDROID_CONTROL_AE_REGIONS;
constexpr uint32_t kInt64Tag = ANDROID_SENSOR_TIMESTAMP;

// Positions of header fields and, behind the header, of the first entry's fields.
constexpr size_t kSizeAt = 0, kEntryCountAt = 12, kEntriesStartAt = 20, kDataCountAt = 24;
constexpr size_t kDataStartAt = 32;
constexpr size_t kTagAt = 48, kCountAt = 52, kValueAt = 56, kTypeAt = 60;

void poke(camera_metadata_t* buffer, size_t position, uint32_t value) {
    memcpy(reinterpret_cast<char*>(buffer) + position, &value, sizeof(value));
}

// An int32 entry that takes data and a byte entry that does not, with room for another of each.
CameraMetadata makeFilled() {
    CameraMetadata buffer = makeMetadata(4, 64);
    addValues<int32_t>(buffer.get(), kInt32Tag, {1, 2, 3});
    addValues<uint8_t>(buffer.get(), kByteTag, {7});
    return buffer;
}

}  // namespace

TEST(CameraMetadataBuffer, RefusesWhatDoesNotFitOrIsUnknownAndStaysAsItWas) {
    EXPECT_EQ(makeMetadata(0, UINT32_MAX) != nullptr, sizeof(size_t) == 4) << "wraps there";
    const int64_t values[2] = {4, 5};
    CameraMetadata buffer = makeMetadata(1, 8);
    EXPECT_EQ(add_camera_metadata_entry(buffer.get(), 0x1ffff, values, 1), 1);
    EXPECT_EQ(add_camera_metadata_entry(buffer.get(), kInt64Tag, values, 2), 1);
    EXPECT_EQ(add_camera_metadata_entry(buffer.get(), kInt64Tag, values, 1), 0);
    EXPECT_EQ(add_camera_metadata_entry(buffer.get(), kByteTag, values, 1), 1) << "the entries are used up";
    EXPECT_EQ(update_camera_metadata_entry(buffer.get(), 0, values, 2, nullptr), 1);
    for (const auto& small : {makeMetadata(2, 7), makeMetadata(0, 64)})
        EXPECT_EQ(append_camera_metadata(small.get(), buffer.get()), 1);
    EXPECT_EQ(valuesOf<int64_t>(buffer.get(), kInt64Tag), std::vector<int64_t>{4});
}

TEST(CameraMetadataBuffer, ValidateFindsEveryKindOfDamage) {
    const struct {
        const char* damage;
        size_t position;
        uint32_t value;
    } cases[] = {{"more entries than capacity", kEntryCountAt, 5},
                 {"more data than capacity", kDataCountAt, 65},
                 {"entries over the data", kEntriesStartAt, 56},
                 {"data beyond the block", kDataStartAt, 120},
                 {"block smaller than its areas", kSizeAt, 168},
                 {"unknown type", kTypeAt, NUM_TYPES},
                 {"type of another tag", kTypeAt, TYPE_FLOAT},
                 {"tag that does not exist", kTagAt, 0x1ffff},
                 {"unaligned data", kValueAt, 4},
                 {"data beyond its area", kValueAt, 56},
                 {"more values than 32 bits can count", kCountAt, 0x40000002}};
    for (const auto& c : cases) {
        CameraMetadata buffer = makeFilled();
        ASSERT_EQ(validate_camera_metadata_structure(buffer.get(), nullptr), 0);
        poke(buffer.get(), c.position, c.value);
        EXPECT_EQ(validate_camera_metadata_structure(buffer.get(), nullptr), 1) << c.damage;
    }
    EXPECT_EQ(validate_camera_metadata_structure(nullptr, nullptr), 1);
}
