// The platform library's rules, as the device's library keeps them.
#include <camera_metadata_hidden.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <system/graphics.h>  // the distribution's own system/ directory must stay reachable beside ours

#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "CameraMetadata.h"

namespace {

constexpr uint32_t kByteTag = ANDROID_CONTROL_AE_MODE;
constexpr uint32_t kInt32Tag = ANDROID_CONTROL_AE_REGIONS;
constexpr uint32_t kInt64Tag = ANDROID_SENSOR_TIMESTAMP;

// Positions of header fields and, behind the header, of the first entry's fields.
constexpr size_t kSizeAt = 0, kFlagsAt = 8, kEntryCountAt = 12, kEntriesStartAt = 20, kDataCountAt = 24;
constexpr size_t kDataStartAt = 32, kVendorIdAt = 40, kHeaderSize = 48;
constexpr size_t kTagAt = 48, kValueAt = 56, kTypeAt = 60;

uint32_t wordAt(const camera_metadata_t* buffer, size_t position) {
    uint32_t word;
    memcpy(&word, reinterpret_cast<const char*>(buffer) + position, sizeof(word));
    return word;
}

template <typename T>
void poke(camera_metadata_t* buffer, size_t position, T value) {
    memcpy(reinterpret_cast<char*>(buffer) + position, &value, sizeof(value));
}

bool isSorted(const camera_metadata_t* buffer) {
    return wordAt(buffer, kFlagsAt) & 1;
}

int update(camera_metadata_t* buffer, uint32_t tag, const void* data, size_t count) {
    camera_metadata_entry_t entry;
    if (find_camera_metadata_entry(buffer, tag, &entry) != 0) return -ENOENT;
    return update_camera_metadata_entry(buffer, entry.index, data, count, nullptr);
}

// An int32 entry that takes data and a byte entry that does not, with room for another of each.
CameraMetadata makeFilled() {
    CameraMetadata buffer = makeMetadata(4, 64);
    addValues<int32_t>(buffer.get(), kInt32Tag, {1, 2, 3});
    addValues<uint8_t>(buffer.get(), kByteTag, {7});
    return buffer;
}

}  // namespace

TEST(CameraMetadataTags, EverySectionAndTagIsNamedAndTyped) {
    size_t tags = 0;
    std::set<std::string> names;
    for (uint32_t section = 0; section < ANDROID_SECTION_COUNT; ++section) {
        const auto [start, end] = camera_metadata_section_bounds[section];
        EXPECT_EQ(start, section << 16);
        for (uint32_t tag = start; tag < end; ++tag, ++tags) {
            ASSERT_NE(get_camera_metadata_tag_name(tag), nullptr);
            EXPECT_EQ(strchr(get_camera_metadata_tag_name(tag), '.'), nullptr);
            EXPECT_LT(static_cast<unsigned>(get_camera_metadata_tag_type(tag)), NUM_TYPES);
            EXPECT_STREQ(get_camera_metadata_section_name(tag), camera_metadata_section_names[section]);
            names.insert(std::string(camera_metadata_section_names[section]) + "." +
                         get_camera_metadata_tag_name(tag));
        }
    }
    EXPECT_EQ(tags, 256u);
    EXPECT_EQ(names.size(), 256u);
}

TEST(CameraMetadataTags, ConstantsHaveTheDevicesValuesNamesAndTypes) {
    static_assert(ANDROID_SECTION_COUNT == 30 && VENDOR_SECTION == 0x8000);
    static_assert(ANDROID_CONTROL_AE_MODE == 0x10003 && ANDROID_SENSOR_TIMESTAMP == 0xe0010);
    static_assert(ANDROID_HEIC_INFO_MAX_JPEG_APP_SEGMENTS_COUNT == 0x1d0001 &&
                  ANDROID_HEIC_INFO_END == 0x1d0002);
    EXPECT_EQ(get_camera_metadata_tag_type(ANDROID_CONTROL_AE_COMPENSATION_STEP), TYPE_RATIONAL);
    EXPECT_EQ(get_camera_metadata_tag_type(ANDROID_JPEG_GPS_COORDINATES), TYPE_DOUBLE);
    EXPECT_EQ(get_camera_metadata_tag_type(ANDROID_LENS_FOCUS_DISTANCE), TYPE_FLOAT);
    EXPECT_STREQ(camera_metadata_type_names[TYPE_RATIONAL], "rational");
    EXPECT_EQ(camera_metadata_type_size[TYPE_RATIONAL], 8u);
}

TEST(CameraMetadataTags, OutsideTheBoundsThereIsNothing) {
    for (uint32_t tag : {0x10030u, 0x1ffffu, 0x1e0000u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        EXPECT_EQ(get_camera_metadata_section_name(tag), nullptr) << tag;
        EXPECT_EQ(get_camera_metadata_tag_name(tag), nullptr) << tag;
        EXPECT_EQ(get_camera_metadata_tag_type(tag), -1) << tag;
    }
}

TEST(CameraMetadataTags, VendorOperationsAnswerForVendorTagsUnchanged) {
    CameraMetadata buffer = makeMetadata(2, 16);
    {
        VendorTags vendor("com.maker.lens", {{"tilt", TYPE_INT64}, {"odd", 77}});
        EXPECT_STREQ(get_camera_metadata_section_name(0x80000000), "com.maker.lens");
        EXPECT_STREQ(get_camera_metadata_tag_name(0x80000000), "tilt");
        EXPECT_EQ(get_camera_metadata_tag_type(0x80000001), 77);
        EXPECT_EQ(get_camera_metadata_tag_name(0x80000002), nullptr);
        EXPECT_STREQ(get_camera_metadata_tag_name(kByteTag), "aeMode");

        EXPECT_EQ(addValues<int64_t>(buffer.get(), 0x80000000, {5}), 0);
        EXPECT_EQ(addValues<int64_t>(buffer.get(), 0x80000001, {5}), 1)
            << "nobody knows how wide its values are";
    }
    EXPECT_EQ(get_camera_metadata_tag_type(0x80000000), -1);
    EXPECT_EQ(addValues<int64_t>(buffer.get(), 0x80000000, {5}), 1)
        << "without operations its type is unknown";
    EXPECT_EQ(validate_camera_metadata_structure(buffer.get(), nullptr), 0)
        << "vendor types are not compared";
}

TEST(CameraMetadataBuffer, AllocateLaysOutAnEmptyBuffer) {
    const struct {
        size_t entries, bytes, size;
    } cases[] = {{0, 0, 48}, {1, 0, 64}, {1, 1, 72}, {3, 9, 112}, {0, 8, 56}};
    for (const auto& c : cases) {
        CameraMetadata buffer = makeMetadata(c.entries, c.bytes);
        ASSERT_TRUE(buffer);
        EXPECT_EQ(get_camera_metadata_size(buffer.get()), c.size);
        EXPECT_EQ(get_camera_metadata_entry_capacity(buffer.get()), c.entries);
        EXPECT_EQ(get_camera_metadata_data_capacity(buffer.get()), c.bytes);
        EXPECT_EQ(get_camera_metadata_entry_count(buffer.get()), 0u);
        EXPECT_EQ(get_camera_metadata_data_count(buffer.get()), 0u);
        EXPECT_EQ(wordAt(buffer.get(), kVendorIdAt), UINT32_MAX);
        EXPECT_EQ(validate_camera_metadata_structure(buffer.get(), &c.size), 0);
    }
    EXPECT_FALSE(makeMetadata(UINT32_MAX, 0));
    EXPECT_FALSE(makeMetadata(0, SIZE_MAX));
    free_camera_metadata(nullptr);
}

TEST(CameraMetadataBuffer, DataSizeIsZeroInTheEntryAndAMultipleOfEightOutside) {
    const struct {
        uint8_t type;
        size_t count, size;
    } cases[] = {{TYPE_BYTE, 4, 0},  {TYPE_BYTE, 5, 8},      {TYPE_BYTE, 9, 16}, {TYPE_INT32, 1, 0},
                 {TYPE_INT32, 2, 8}, {TYPE_INT32, 3, 16},    {TYPE_FLOAT, 1, 0}, {TYPE_INT64, 0, 0},
                 {TYPE_INT64, 1, 8}, {TYPE_RATIONAL, 2, 16}, {NUM_TYPES, 9, 0},  {255, 100, 0}};
    for (const auto& c : cases)
        EXPECT_EQ(calculate_camera_metadata_entry_data_size(c.type, c.count), c.size)
            << int{c.type} << " " << c.count;
}

TEST(CameraMetadataBuffer, AddRefusesWhatDoesNotFitOrIsUnknown) {
    const int64_t values[2] = {};
    CameraMetadata buffer = makeMetadata(1, 8);
    EXPECT_EQ(add_camera_metadata_entry(nullptr, kInt64Tag, values, 1), 1);
    EXPECT_EQ(add_camera_metadata_entry(buffer.get(), 0x1ffff, values, 1), 1);
    EXPECT_EQ(add_camera_metadata_entry(buffer.get(), kInt64Tag, nullptr, 1), 1);
    EXPECT_EQ(add_camera_metadata_entry(buffer.get(), kInt64Tag, values, 2), 1);
    EXPECT_EQ(add_camera_metadata_entry(buffer.get(), kInt64Tag, values, 1), 0);
    EXPECT_EQ(add_camera_metadata_entry(buffer.get(), kByteTag, values, 1), 1) << "the entries are used up";
    EXPECT_EQ(get_camera_metadata_entry_count(buffer.get()), 1u);
    EXPECT_EQ(get_camera_metadata_data_count(buffer.get()), 8u);
}

TEST(CameraMetadataBuffer, AddAcceptsZeroValuesAndDuplicatesOfWhichFindSeesTheFirst) {
    CameraMetadata buffer = makeMetadata(3, 0);
    EXPECT_EQ(add_camera_metadata_entry(buffer.get(), kInt32Tag, nullptr, 0), 0);
    EXPECT_EQ(addValues<uint8_t>(buffer.get(), kByteTag, {1}), 0);
    EXPECT_EQ(addValues<uint8_t>(buffer.get(), kByteTag, {2}), 0);
    EXPECT_TRUE(hasTag(buffer.get(), kInt32Tag));
    EXPECT_EQ(valuesOf<uint8_t>(buffer.get(), kByteTag), std::vector<uint8_t>{1});
    camera_metadata_entry_t entry = {};
    EXPECT_EQ(find_camera_metadata_entry(nullptr, kByteTag, &entry), 1);
    EXPECT_EQ(find_camera_metadata_entry(buffer.get(), kInt64Tag, &entry), -ENOENT);
    EXPECT_EQ(validate_camera_metadata_structure(buffer.get(), nullptr), 0);
}

TEST(CameraMetadataBuffer, SortingServesFindUntilTheNextAdd) {
    CameraMetadata buffer = makeFilled();
    EXPECT_EQ(sort_camera_metadata(nullptr), 1);
    EXPECT_EQ(sort_camera_metadata(buffer.get()), 0);
    EXPECT_TRUE(isSorted(buffer.get()));
    camera_metadata_entry_t entry = {};
    ASSERT_EQ(find_camera_metadata_entry(buffer.get(), kByteTag, &entry), 0);
    EXPECT_EQ(entry.index, 0u) << "its tag is the smaller one";
    EXPECT_EQ(valuesOf<int32_t>(buffer.get(), kInt32Tag), (std::vector<int32_t>{1, 2, 3}));
    EXPECT_FALSE(hasTag(buffer.get(), kInt64Tag));

    EXPECT_EQ(update(buffer.get(), kInt32Tag, nullptr, 0), 0);
    EXPECT_TRUE(isSorted(buffer.get()));
    EXPECT_EQ(addValues<uint8_t>(buffer.get(), ANDROID_COLOR_CORRECTION_MODE, {1}), 0);
    EXPECT_FALSE(isSorted(buffer.get()));
    EXPECT_TRUE(hasTag(buffer.get(), ANDROID_COLOR_CORRECTION_MODE));
}

TEST(CameraMetadataBuffer, UpdateOfAnotherSizeMovesLaterDataDownAndAppendsTheNew) {
    CameraMetadata buffer = makeMetadata(3, 40);
    addValues<int32_t>(buffer.get(), kInt32Tag, {1, 2, 3});
    addValues<int64_t>(buffer.get(), kInt64Tag, {4});
    const int32_t padded[] = {1, 2, 3, 4};
    EXPECT_EQ(update(buffer.get(), kInt32Tag, padded, 4), 0);
    EXPECT_EQ(wordAt(buffer.get(), kHeaderSize + 8), 0u) << "values of the same padded size stay in place";
    const int32_t longer[] = {5, 6, 7, 8, 9, 10, 11, 12};
    EXPECT_EQ(update(buffer.get(), kInt32Tag, longer, 8), 0) << "8 + 32 bytes fit exactly";
    EXPECT_EQ(valuesOf<int32_t>(buffer.get(), kInt32Tag), std::vector<int32_t>(longer, longer + 8));
    EXPECT_EQ(valuesOf<int64_t>(buffer.get(), kInt64Tag), std::vector<int64_t>{4});
    EXPECT_EQ(wordAt(buffer.get(), kHeaderSize + 8), 8u) << "the new values stand last";

    const int32_t tooLong[10] = {};
    EXPECT_EQ(update(buffer.get(), kInt32Tag, tooLong, 10), 1);
    EXPECT_EQ(valuesOf<int32_t>(buffer.get(), kInt32Tag).size(), 8u) << "a refused update changes nothing";
    camera_metadata_entry_t updated = {};
    EXPECT_EQ(update_camera_metadata_entry(buffer.get(), 0, longer, 1, &updated), 0);
    ASSERT_EQ(updated.count, 1u);
    EXPECT_EQ(*updated.data.i32, 5) << "in the entry itself";
    EXPECT_EQ(get_camera_metadata_data_count(buffer.get()), 8u);
    EXPECT_EQ(validate_camera_metadata_structure(buffer.get(), nullptr), 0);

    EXPECT_EQ(update_camera_metadata_entry(nullptr, 0, longer, 1, nullptr), 1);
    EXPECT_EQ(update_camera_metadata_entry(buffer.get(), 2, longer, 1, nullptr), 1);
}

TEST(CameraMetadataBuffer, UpdateToZeroValuesSpoilsTheStructure) {
    CameraMetadata buffer = makeFilled();
    EXPECT_EQ(update(buffer.get(), kInt32Tag, nullptr, 0), 0);
    EXPECT_EQ(validate_camera_metadata_structure(buffer.get(), nullptr), 0) << "its offset happened to be 0";
    EXPECT_EQ(update(buffer.get(), kByteTag, nullptr, 0), 0);
    EXPECT_EQ(valuesOf<uint8_t>(buffer.get(), kByteTag), std::vector<uint8_t>{});
    EXPECT_EQ(validate_camera_metadata_structure(buffer.get(), nullptr), 1) << "the old value is still there";

    CameraMetadata copy = makeMetadata(4, 64);
    EXPECT_EQ(append_camera_metadata(copy.get(), buffer.get()), 0);
    EXPECT_EQ(validate_camera_metadata_structure(copy.get(), nullptr), 1);
}

TEST(CameraMetadataBuffer, AppendNeedsRoomAndOneVendor) {
    CameraMetadata source = makeFilled();
    EXPECT_EQ(append_camera_metadata(nullptr, source.get()), 1);
    EXPECT_EQ(append_camera_metadata(makeMetadata(2, 16).get(), nullptr), 1);
    EXPECT_EQ(append_camera_metadata(makeMetadata(1, 64).get(), source.get()), 1);
    EXPECT_EQ(append_camera_metadata(makeMetadata(2, 15).get(), source.get()), 1);

    CameraMetadata target = makeMetadata(3, 24);
    addValues<int64_t>(target.get(), kInt64Tag, {4});
    poke<uint64_t>(source.get(), kVendorIdAt, 5);
    poke<uint64_t>(target.get(), kVendorIdAt, 6);
    EXPECT_EQ(append_camera_metadata(target.get(), source.get()), 1);
    poke<uint64_t>(target.get(), kVendorIdAt, CAMERA_METADATA_INVALID_VENDOR_ID);
    EXPECT_EQ(append_camera_metadata(target.get(), source.get()), 0);
    EXPECT_EQ(wordAt(target.get(), kVendorIdAt), 5u);
    EXPECT_EQ(valuesOf<int64_t>(target.get(), kInt64Tag), std::vector<int64_t>{4});
    EXPECT_EQ(valuesOf<int32_t>(target.get(), kInt32Tag), (std::vector<int32_t>{1, 2, 3}));
    EXPECT_EQ(validate_camera_metadata_structure(target.get(), nullptr), 0);
}

TEST(CameraMetadataBuffer, AppendAndCloneHandTheSortedFlagToAnEmptyBufferOnly) {
    CameraMetadata sorted = makeFilled();
    sort_camera_metadata(sorted.get());
    CameraMetadata clone(clone_camera_metadata(sorted.get()));
    EXPECT_TRUE(isSorted(clone.get()));
    EXPECT_EQ(get_camera_metadata_size(clone.get()), 96u) << "with exactly the room of its content";
    EXPECT_EQ(clone_camera_metadata(nullptr), nullptr);

    CameraMetadata target = makeMetadata(8, 64);
    EXPECT_EQ(append_camera_metadata(target.get(), sorted.get()), 0);
    EXPECT_TRUE(isSorted(target.get()));
    EXPECT_EQ(append_camera_metadata(target.get(), makeMetadata(0, 0).get()), 0);
    EXPECT_TRUE(isSorted(target.get())) << "nothing was added";
    EXPECT_EQ(append_camera_metadata(target.get(), sorted.get()), 0);
    EXPECT_FALSE(isSorted(target.get()));
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
                 {"data beyond its area", kValueAt, 56}};
    for (const auto& c : cases) {
        CameraMetadata buffer = makeFilled();
        ASSERT_EQ(validate_camera_metadata_structure(buffer.get(), nullptr), 0);
        poke(buffer.get(), c.position, c.value);
        EXPECT_EQ(validate_camera_metadata_structure(buffer.get(), nullptr), 1) << c.damage;
    }
    EXPECT_EQ(validate_camera_metadata_structure(nullptr, nullptr), 1);
    const size_t tooSmall = 175;
    EXPECT_EQ(validate_camera_metadata_structure(makeFilled().get(), &tooSmall), 1);

    alignas(8) char room[256];
    const CameraMetadata source = makeFilled();
    auto* shifted = reinterpret_cast<camera_metadata_t*>(room + 4);
    memcpy(shifted, source.get(), get_camera_metadata_size(source.get()));
    EXPECT_EQ(validate_camera_metadata_structure(shifted, nullptr), 2);
}

// Random changes, each compared with a plain list of tags and bytes.
TEST(CameraMetadataBuffer, KeepsEveryValueThroughRandomChanges) {
    std::mt19937 random(20);
    const uint32_t tags[] = {kByteTag,
                             kInt32Tag,
                             kInt64Tag,
                             ANDROID_COLOR_CORRECTION_TRANSFORM,
                             ANDROID_LENS_FOCUS_DISTANCE,
                             ANDROID_JPEG_GPS_COORDINATES};
    std::vector<std::vector<uint8_t>> model(std::size(tags));
    CameraMetadata buffer = makeMetadata(std::size(tags), 600);
    for (uint32_t tag : tags)
        ASSERT_EQ(add_camera_metadata_entry(buffer.get(), tag, nullptr, 0), 0);

    for (int step = 0; step < 3000; ++step) {
        const size_t i = random() % std::size(tags);
        const size_t count = 1 + random() % 12;
        std::vector<uint8_t> bytes(count * camera_metadata_type_size[get_camera_metadata_tag_type(tags[i])]);
        std::generate(bytes.begin(), bytes.end(), random);
        ASSERT_EQ(update(buffer.get(), tags[i], bytes.data(), count), 0);
        model[i] = bytes;
        if (step % 50 == 0) sort_camera_metadata(buffer.get());
        if (step % 70 == 0) {
            CameraMetadata copy = makeMetadata(std::size(tags), 600);
            ASSERT_EQ(append_camera_metadata(copy.get(), buffer.get()), 0);
            buffer = std::move(copy);
        }
        for (size_t t = 0; t < std::size(tags); ++t) {
            camera_metadata_ro_entry_t entry;
            ASSERT_EQ(find_camera_metadata_ro_entry(buffer.get(), tags[t], &entry), 0);
            const size_t size = entry.count * camera_metadata_type_size[entry.type];
            ASSERT_EQ(std::vector<uint8_t>(entry.data.u8, entry.data.u8 + size), model[t])
                << "after step " << step;
        }
        ASSERT_EQ(validate_camera_metadata_structure(buffer.get(), nullptr), 0);
    }
}
