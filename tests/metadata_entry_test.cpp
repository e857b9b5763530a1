// How single entries get into a capture's buffer, and whose the buffers are.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <set>
#include <string>
#include <vector>

#include "MetadataFixture.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED 1
#endif
#endif

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// What the handler asked of the platform library, through the functions below.
std::set<const camera_metadata_t*> gAllocated;
std::set<const camera_metadata_t*> gFreed;
bool gFailAppend = false;

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand before the library's own for everything in this program.
extern "C" camera_metadata_t* allocate_camera_metadata(size_t entries, size_t bytes) {
    camera_metadata_t* buffer = next<decltype(&allocate_camera_metadata)>(__func__)(entries, bytes);
    if (buffer) gAllocated.insert(buffer);
    gFreed.erase(buffer);
    return buffer;
}

extern "C" void free_camera_metadata(camera_metadata_t* buffer) {
    if (buffer) gFreed.insert(buffer);
    gAllocated.erase(buffer);
    next<decltype(&free_camera_metadata)>(__func__)(buffer);
}

extern "C" int append_camera_metadata(camera_metadata_t* to, const camera_metadata_t* from) {
    return gFailAppend ? 1 : next<decltype(&append_camera_metadata)>(__func__)(to, from);
}

namespace {

class AMetadataEntry : public AMetadataHandler {
  protected:
    ~AMetadataEntry() override { gFailAppend = false; }

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

TEST_F(AMetadataEntry, CreatesABufferForJustItselfWhereThereIsNone) {
    Capture result;
    EXPECT_TRUE(set(result, ANDROID_SENSOR_TIMESTAMP, {1, 2, 3}));
    EXPECT_TRUE(result.md.isMetadataReplaced);
    EXPECT_EQ(get_camera_metadata_entry_capacity(result.current), 1u);
    EXPECT_EQ(get_camera_metadata_data_capacity(result.current), 24u);
    EXPECT_THAT(valuesOf<int64_t>(result.current, ANDROID_SENSOR_TIMESTAMP), ElementsAre(1, 2, 3));
}

TEST_F(AMetadataEntry, MovesToANewBufferOfExactSizeEvenWhenTheOldHasRoom) {
    Capture result(makeRoomy());
    EXPECT_TRUE(set(result, ANDROID_SENSOR_EXPOSURE_TIME, {7}));
    EXPECT_TRUE(result.md.isMetadataReplaced);
    ASSERT_NE(result.current, result.original.get());
    EXPECT_EQ(get_camera_metadata_entry_capacity(result.current), 2u);
    EXPECT_EQ(get_camera_metadata_data_capacity(result.current), 16u)
        << "of what is used, not of the capacity";
    EXPECT_THAT(valuesOf<int64_t>(result.current, ANDROID_SENSOR_TIMESTAMP), ElementsAre(5));
    EXPECT_THAT(valuesOf<int64_t>(result.current, ANDROID_SENSOR_EXPOSURE_TIME), ElementsAre(7));
    EXPECT_EQ(get_camera_metadata_entry_count(result.original.get()), 1u)
        << "the HAL's buffer stays as it was";
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
    constexpr unsigned kBeyondMemory = 0x20000000;  // values of 8 bytes that no buffer can hold
    Capture nowhere, empty, full(makeRoomy());
    nowhere.md.metadata = nullptr;
    EXPECT_FALSE(set(nowhere, ANDROID_SENSOR_TIMESTAMP, {1}));
    EXPECT_FALSE(handler.setMetadataEntry(empty.md, ANDROID_SENSOR_TIMESTAMP, nullptr, kBeyondMemory));
    EXPECT_FALSE(handler.setMetadataEntry(full.md, ANDROID_SENSOR_EXPOSURE_TIME, nullptr, kBeyondMemory));
    EXPECT_THAT(logged(), ElementsAre("E DTM: metadata is still null", "E DTM: metadata is still null",
                                      "E metadata struct not vaild"));
    for (const Capture* capture : {&nowhere, &empty, &full}) {
        EXPECT_EQ(capture->current, capture->original.get());
        EXPECT_FALSE(capture->md.isMetadataReplaced);
    }
}

TEST_F(AMetadataEntry, FreesTheNewBufferWhenTheOldCannotBeAppended) {
    Capture result(makeRoomy());
    const size_t before = gAllocated.size();
    gFailAppend = true;
    EXPECT_FALSE(set(result, ANDROID_SENSOR_EXPOSURE_TIME, {1}));
    EXPECT_THAT(logged(), ElementsAre("E metadata failed to append"));
    EXPECT_EQ(result.current, result.original.get());
    EXPECT_EQ(gAllocated.size(), before);
}

TEST_F(AMetadataEntry, IsNotAddedToABufferThatAnUpdateToNothingSpoiled) {
    CameraMetadata buffer = makeMetadata(1, 0);
    addValues<uint8_t>(buffer.get(), ANDROID_CONTROL_AE_MODE, {1});
    Capture result(std::move(buffer));
    const auto before = gAllocated;
    import(result, R"({"android.control.aeMode":[],"android.control.afMode":[1]})");
    EXPECT_THAT(logged(), ElementsAre("E metadata struct not vaild",
                                      "E Failed to set metadata for android.control.afMode"));
    EXPECT_EQ(result.current, result.original.get());

    // The refused buffer is nobody's by then.
    for (const camera_metadata_t* buffer : std::set<const camera_metadata_t*>(gAllocated))
        if (!before.count(buffer)) free_camera_metadata(const_cast<camera_metadata_t*>(buffer));
}

TEST_F(AMetadataEntry, OfOneImportOnlyTheLastBufferIsLeft) {
    for (const bool hadBuffer : {true, false}) {
        Capture result(hadBuffer ? makeRoomy() : nullptr);
        const size_t before = gAllocated.size();
        import(result,
               R"({"android.control.aeMode":[1],"android.control.afMode":[2],"android.control.aeMode":[3],
                           "none":[],"android.sensor.exposureTime":[4],"android.control.aeRegions":[1,2,3,4,5],"android.control.aeMode":[6]})");
        EXPECT_EQ(gAllocated.size(), before + 1) << "three of the four new buffers were outgrown";
        EXPECT_TRUE(gAllocated.count(result.current));
        EXPECT_FALSE(gFreed.count(result.original.get())) << "the HAL's own is the HAL's to free";
        EXPECT_TRUE(result.md.isMetadataReplaced) << "the update at the end does not clear it";
        EXPECT_EQ(get_camera_metadata_entry_count(result.current), hadBuffer ? 5u : 4u);
        EXPECT_THAT(valuesOf<uint8_t>(result.current, ANDROID_CONTROL_AE_MODE), ElementsAre(6));
        EXPECT_THAT(valuesOf<int32_t>(result.current, ANDROID_CONTROL_AE_REGIONS),
                    ElementsAre(1, 2, 3, 4, 5));
    }
}

TEST_F(AMetadataEntry, ABufferOfAnEarlierImportStaysTheHals) {
    Capture result;
    import(result, R"({"android.control.aeMode":[1]})");
    const CameraMetadata first(result.current);
    import(result, R"({"android.control.afMode":[1]})");
    EXPECT_NE(result.current, first.get());
    EXPECT_FALSE(gFreed.count(first.get()));
}

TEST_F(AMetadataEntry, WiderThanItsTagIsFilledFromRoomOfItsOwn) {
    CameraMetadata buffer = makeMetadata(1, 1000);
    {
        VendorTags vendor("v", {{"x", TYPE_INT64}});
        addValues<int64_t>(buffer.get(), VENDOR_SECTION_START, {-1});
    }
    VendorTags vendor("v", {{"x", TYPE_BYTE}});
    handler.setVendorTagCallback(
        [&](const char* s, const char* t, unsigned& id) { return vendor.find(s, t, id); });
    Capture result(std::move(buffer));
    std::string ones = "1";
    for (int i = 1; i < 40; ++i)
        ones += ",1";
    import(result, "{\"v.x\":[" + ones + "]}");
    EXPECT_THAT(logged(), IsEmpty());
    const std::vector<int64_t> values = valuesOf<int64_t>(result.current, VENDOR_SECTION_START);
    ASSERT_EQ(values.size(), 40u);
    EXPECT_EQ(values.front(), 0x0101010101010101);
    EXPECT_EQ(values.back(), 0);
}

// No LogCapture here: what the child process logs is read from its error output.
class AMetadataHandlerShortOfMemory : public ::testing::Test {
  protected:
    void SetUp() override {
#ifdef SANITIZED
        GTEST_SKIP() << "a sanitizer does not live within a limit of the address space";
#endif
    }

    // Runs in a child process, whose every new mapping fails.
    static void run(const std::function<void()>& body) {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_AS, &none);
        body();
        _exit(0);
    }

    static constexpr size_t kMoreThanTheHeapHas = 64 << 20;
    MetadataHandler handler;
    Capture result;
};

TEST_F(AMetadataHandlerShortOfMemory, FailsToCopyTheVendorsName) {
    handler.setVendorTagCallback([](const char*, const char*, unsigned&) { return true; });
    const std::string name = std::string(kMoreThanTheHeapHas, 'x') + ".y";
    unsigned id = 0;
    EXPECT_EXIT(run([&] { handler.findMetadataTagId(name.c_str(), &id); }), ::testing::ExitedWithCode(0),
                "Failed to allocate vendor name");
}

TEST_F(AMetadataHandlerShortOfMemory, AbandonsATagWhoseValuesDoNotFit) {
    JsonMessage message;
    rapidjson::Value values(rapidjson::kArrayType);
    for (size_t i = 0; i < kMoreThanTheHeapHas / 8; ++i)
        values.PushBack(0, message.allocator());
    message.root().AddMember("android.control.aeMode", values, message.allocator());
    EXPECT_EXIT(run([&] { handler.convertToMetadata(result.md, message.root()); }),
                ::testing::ExitedWithCode(0), "Failed to set metadata for android.control.aeMode");
}
