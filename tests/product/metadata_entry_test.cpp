// How single entries get into a capture's buffer, and whose the buffers are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DeepText.h"
#include "DeliberateLeak.h"
#include "MetadataFixture.h"
#include "NextDefinition.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

int gBuffers = 0;  // allocated and not freed; freeing one twice ends the process
bool gFailAppend = false;

}  // namespace

// These stand before the library's own for everything in this program.
extern "C" camera_metadata_t* allocate_camera_metadata(size_t entries, size_t bytes) {
    camera_metadata_t* buffer = nextDefinition<decltype(allocate_camera_metadata)>(__func__)(entries, bytes);
    if (buffer != nullptr) ++gBuffers;
    return buffer;
}

extern "C" void free_camera_metadata(camera_metadata_t* buffer) {
    if (buffer != nullptr) --gBuffers;
    nextDefinition<decltype(free_camera_metadata)>(__func__)(buffer);
}

extern "C" int append_camera_metadata(camera_metadata_t* to, const camera_metadata_t* from) {
    return gFailAppend ? 1 : nextDefinition<decltype(append_camera_metadata)>(__func__)(to, from);
}

namespace {

class AMetadataEntry : public AMetadataHandler {
  protected:
    AMetadataEntry() {
        gBuffers = 0;
        gFailAppend = false;
    }

    bool set(Capture& capture, unsigned tag, std::vector<int64_t> values) {
        return handler.setMetadataEntry(capture.md, tag, values.data(), static_cast<unsigned>(values.size()));
    }
};

// A timestamp, with room to spare.
CameraMetadata makeRoomy() {
    CameraMetadata buffer = makeMetadata(10, 100);
    addValues<int64_t>(buffer.get(), ANDROID_SENSOR_TIMESTAMP, {5});
    return buffer;
}

}  // namespace

TEST_F(AMetadataEntry, GetsANewBufferOfExactSizeEvenWhenTheOldHasRoom) {
    Capture created, grown(makeRoomy());
    EXPECT_TRUE(set(created, ANDROID_SENSOR_TIMESTAMP, {1, 2, 3}));
    EXPECT_TRUE(created.md.isMetadataReplaced);
    EXPECT_EQ(get_camera_metadata_entry_capacity(created.current), 1u);
    EXPECT_EQ(get_camera_metadata_data_capacity(created.current), 24u);
    EXPECT_THAT(valuesOf<int64_t>(created.current, ANDROID_SENSOR_TIMESTAMP), ElementsAre(1, 2, 3));

    EXPECT_TRUE(set(grown, ANDROID_SENSOR_EXPOSURE_TIME, {7}));
    EXPECT_TRUE(grown.md.isMetadataReplaced);
    EXPECT_EQ(get_camera_metadata_entry_capacity(grown.current), 2u);
    EXPECT_EQ(get_camera_metadata_data_capacity(grown.current), 16u) << "of what is used, not the capacity";
    EXPECT_THAT(valuesOf<int64_t>(grown.current, ANDROID_SENSOR_TIMESTAMP), ElementsAre(5));
    EXPECT_THAT(valuesOf<int64_t>(grown.current, ANDROID_SENSOR_EXPOSURE_TIME), ElementsAre(7));
    EXPECT_EQ(get_camera_metadata_entry_count(grown.original.get()), 1u) << "the HAL's stays as it was";
}

TEST_F(AMetadataEntry, IsUpdatedInPlaceWhileTheNewValuesFit) {
    Capture result(makeRoomy());
    EXPECT_TRUE(set(result, ANDROID_SENSOR_TIMESTAMP, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_EQ(result.current, result.original.get());
    EXPECT_FALSE(result.md.isMetadataReplaced);
    EXPECT_EQ(get_camera_metadata_entry_count(result.current), 1u);

    EXPECT_FALSE(set(result, ANDROID_SENSOR_TIMESTAMP, std::vector<int64_t>(13)));
    EXPECT_THAT(logged(),
                ElementsAre("E DTM: failed (rc=1) to add tag 917520 size 104, data_count 96, data_size 100"));
    EXPECT_EQ(result.current, result.original.get()) << "an update never makes room";
    EXPECT_EQ(valuesOf<int64_t>(result.current, ANDROID_SENSOR_TIMESTAMP).size(), 12u);
}

TEST_F(AMetadataEntry, LeavesTheGrownBufferBehindWhenTheAddFails) {
    Capture grown(makeRoomy()), created;
    EXPECT_FALSE(handler.setMetadataEntry(grown.md, ANDROID_SENSOR_EXPOSURE_TIME, nullptr, 1));
    EXPECT_FALSE(handler.setMetadataEntry(created.md, ANDROID_SENSOR_EXPOSURE_TIME, nullptr, 1));
    EXPECT_THAT(logged(),
                ElementsAre("E DTM: failed (rc=1) to add tag 917504 size 8, data_count 8, data_size 16",
                            "E DTM: failed (rc=1) to add tag 917504 size 8, data_count 0, data_size 8"));
    EXPECT_TRUE(grown.md.isMetadataReplaced);
    EXPECT_NE(grown.current, grown.original.get());
    EXPECT_THAT(valuesOf<int64_t>(grown.current, ANDROID_SENSOR_TIMESTAMP), ElementsAre(5));
    EXPECT_TRUE(created.md.isMetadataReplaced);
    EXPECT_EQ(get_camera_metadata_entry_count(created.current), 0u);
}

TEST_F(AMetadataEntry, FailsWithoutABufferToWriteTo) {
    // Values of 8 bytes that no buffer can hold: 2 GB where size_t has 32 bits, just below 4 GB elsewhere.
    constexpr unsigned kBeyondMemory = sizeof(size_t) == 4 ? 0x10000000 : 0x1ffffff8;
    Capture nowhere, empty, full(makeRoomy()), unappended(makeRoomy());
    nowhere.md.metadata = nullptr;
    EXPECT_FALSE(set(nowhere, ANDROID_SENSOR_TIMESTAMP, {1}));
    EXPECT_FALSE(handler.setMetadataEntry(empty.md, ANDROID_SENSOR_TIMESTAMP, nullptr, kBeyondMemory));
    EXPECT_FALSE(handler.setMetadataEntry(full.md, ANDROID_SENSOR_EXPOSURE_TIME, nullptr, kBeyondMemory));
    gFailAppend = true;
    EXPECT_FALSE(set(unappended, ANDROID_SENSOR_EXPOSURE_TIME, {1}));
    EXPECT_THAT(logged(), ElementsAre("E DTM: metadata is still null", "E DTM: metadata is still null",
                                      "E metadata struct not vaild", "E metadata failed to append"));
    EXPECT_EQ(gBuffers, 2) << "the HAL's two";
    for (const Capture* capture : {&nowhere, &empty, &full, &unappended}) {
        EXPECT_EQ(capture->current, capture->original.get());
        EXPECT_FALSE(capture->md.isMetadataReplaced);
    }
}

TEST_F(AMetadataEntry, IsNotAddedToABufferThatAnUpdateToNothingSpoiled) {
    const DeliberateLeak refusedBufferIsNobodys;
    CameraMetadata buffer = makeMetadata(1, 0);
    addValues<uint8_t>(buffer.get(), ANDROID_CONTROL_AE_MODE, {1});
    Capture result(std::move(buffer));
    import(result, R"({"android.control.aeMode":[],"android.control.afMode":[1]})");
    EXPECT_THAT(logged(), ElementsAre("E metadata struct not vaild",
                                      "E Failed to set metadata for android.control.afMode"));
    EXPECT_EQ(result.current, result.original.get());
}

TEST_F(AMetadataEntry, OfOneImportOnlyTheLastBufferIsLeft) {
    for (const bool hadBuffer : {true, false}) {
        Capture result(hadBuffer ? makeRoomy() : nullptr);
        import(result,
               R"({"android.control.aeMode":[1],"android.control.afMode":[2],"android.control.aeMode":[3],
                           "none":[],"android.sensor.exposureTime":[4],"android.control.aeRegions":[1,2,3,4,5],"android.control.aeMode":[6]})");
        EXPECT_EQ(gBuffers, hadBuffer ? 2 : 1) << "the HAL's own and the last";
        EXPECT_TRUE(result.md.isMetadataReplaced) << "the update at the end does not clear it";
        EXPECT_EQ(get_camera_metadata_entry_count(result.current), hadBuffer ? 5u : 4u);
        EXPECT_THAT(valuesOf<uint8_t>(result.current, ANDROID_CONTROL_AE_MODE), ElementsAre(6));
        EXPECT_THAT(valuesOf<int32_t>(result.current, ANDROID_CONTROL_AE_REGIONS),
                    ElementsAre(1, 2, 3, 4, 5));
        const CameraMetadata first(result.current);
        import(result, R"({"android.flash.mode":[1]})");
        EXPECT_EQ(gBuffers, hadBuffer ? 3 : 2) << "a buffer of an earlier import is the HAL's too";
    }
}

TEST_F(AMetadataEntry, WiderThanItsTagIsFilledFromRoomOfItsOwn) {
    CameraMetadata buffer = makeMetadata(1, 1000);
    {
        VendorTags vendor("v", {{"x", TYPE_INT64}});
        addValues<int64_t>(buffer.get(), VENDOR_SECTION_START, {-1});
    }
    VendorTags vendor("v", {{"x", TYPE_BYTE}});
    resolveBy(vendor);
    Capture result(std::move(buffer));
    import(result, "{\"v.x\":[" + repeated("1,", 39) + "1]}");
    EXPECT_THAT(logged(), IsEmpty());
    const std::vector<int64_t> values = valuesOf<int64_t>(result.current, VENDOR_SECTION_START);
    ASSERT_EQ(values.size(), 40u);
    EXPECT_EQ(values.front(), 0x0101010101010101);
    EXPECT_EQ(values.back(), 0);

    import(result, R"({"v.x":[1,1,1]})");
    EXPECT_THAT(valuesOf<int64_t>(result.current, VENDOR_SECTION_START), ElementsAre(0x010101, 0, 0));
}
