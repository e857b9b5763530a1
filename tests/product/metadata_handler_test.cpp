#include "MetadataHandler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "DeepText.h"
#include "MetadataFixture.h"
#include "RepeatedActions.h"
#include "WaitUntil.h"

using android::JsonMessage;

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint32_t kFirstVendorTag = VENDOR_SECTION_START;
constexpr char kVendorSection[] = "com.brisel.zint.velc2d";

std::string arrayOf(size_t count, const std::string& element) {
    return "[" + repeated(element + ",", count - 1) + element + "]";
}

bool refuseEveryTag(const char*, const char*, unsigned& id) {
    id = 1;
    return false;
}

}  // namespace

// --- Tag names ---

TEST_F(AMetadataHandler, FindsEveryStandardTagByItsFullName) {
    for (uint32_t section = 0; section < ANDROID_SECTION_COUNT; ++section) {
        for (uint32_t tag = section << 16; tag < camera_metadata_section_bounds[section][1]; ++tag) {
            const std::string name =
                std::string(camera_metadata_section_names[section]) + "." + get_camera_metadata_tag_name(tag);
            unsigned id = UINT32_MAX;
            EXPECT_TRUE(handler.findMetadataTagId(name.c_str(), &id)) << name;
            EXPECT_EQ(id, tag) << name;
        }
    }
}

TEST_F(AMetadataHandler, TakesTheLongestSectionAndSkipsTheSeparatorUnchecked) {
    const struct {
        const char* name;
        unsigned id;
    } known[] = {{"android.sensor.info.activeArraySize", ANDROID_SENSOR_INFO_ACTIVE_ARRAY_SIZE},
                 {"android.sensor.timestamp", ANDROID_SENSOR_TIMESTAMP},
                 {"android.info.version", ANDROID_INFO_VERSION},
                 {"android.controlXaeMode", ANDROID_CONTROL_AE_MODE}};
    for (const auto& row : known) {
        unsigned id = 0;
        EXPECT_TRUE(handler.findMetadataTagId(row.name, &id)) << row.name;
        EXPECT_EQ(id, row.id) << row.name;
    }

    unsigned id = 77;
    for (const char* name : {"android.sensor.", "android.sensor", "android.sensor.info",
                             "android.sensor.info.", "android.sensorfoo.bar", "android.control.AEMODE",
                             "android.control.aeMode ", "aeMode", "vendor.", ".", ""})
        EXPECT_FALSE(handler.findMetadataTagId(name, &id)) << name;
    EXPECT_FALSE(handler.findMetadataTagId(nullptr, &id));
    EXPECT_FALSE(handler.findMetadataTagId("android.control.aeMode", nullptr));
    EXPECT_EQ(id, 77u);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AMetadataHandler, AsksTheCallbackForVendorTags) {
    unsigned id = 77;
    EXPECT_FALSE(handler.findMetadataTagId("com.brisel.zint.velc2d.MaxStreamSize", &id));
    handler.setVendorTagCallback(refuseEveryTag);
    EXPECT_FALSE(handler.findMetadataTagId("com.brisel.zint.velc2d.MaxStreamSize", &id));
    EXPECT_EQ(id, 77u);
    EXPECT_THAT(logged(), ElementsAre("E vendor tag not initalized yet", "E Failed to get vendor tag"));

    std::vector<std::string> asked;
    handler.setVendorTagCallback([&](const char* section, const char* tag, unsigned& found) {
        asked.push_back(std::string(section) + "|" + tag);
        found = 0x80000003;
        return true;
    });
    EXPECT_TRUE(handler.findMetadataTagId("com.brisel.zint.velc2d.MaxStreamSize", &id));
    EXPECT_EQ(id, 0x80000003u);
    EXPECT_TRUE(handler.findMetadataTagId(".x", &id));
    EXPECT_TRUE(handler.findMetadataTagId("android.x", &id));
    EXPECT_THAT(asked, ElementsAre("com.brisel.zint.velc2d|MaxStreamSize", "|x", "android|x"));

    handler.setVendorTagCallback([this](const char*, const char*, unsigned&) {
        handler.setVendorTagCallback(nullptr);
        return true;
    });
    EXPECT_TRUE(handler.findMetadataTagId(".x", &id)) << "a callback may replace itself";
    EXPECT_FALSE(handler.findMetadataTagId(".x", &id));
}

// --- Filters ---

TEST_F(AMetadataHandler, ExportsOnlyTheTagsOfTheCapturesFilter) {
    const auto makeBuffer = [] {
        CameraMetadata buffer = makeMetadata(2, 8);
        addValues<uint8_t>(buffer.get(), ANDROID_CONTROL_AE_MODE, {1});
        addValues<int64_t>(buffer.get(), ANDROID_SENSOR_TIMESTAMP, {1234567890123});
        return buffer;
    };
    Capture request(makeBuffer(), Capture::REQUEST), result(makeBuffer()), empty;
    EXPECT_EQ(exported(result), "{}") << "no filter was set yet";

    setRequests(R"(["android.control.aeMode","android.control.aeState"])");
    setResults(R"(["android.sensor.timestamp"])");
    EXPECT_EQ(exported(request), R"({"android.control.aeMode":[1]})") << "aeState is absent";
    EXPECT_EQ(exported(result), R"({"android.sensor.timestamp":[1234567890123]})");
    EXPECT_EQ(exported(empty), "{}");
    empty.md.metadata = nullptr;
    EXPECT_EQ(exported(empty), "{}");

    setResults(R"(["android.control.aeMode","android.control.aeMode"])");
    EXPECT_EQ(exported(result), R"({"android.control.aeMode":[1]})");
    EXPECT_THAT(logged(), IsEmpty());
    setResults(R"(["android.sensor.timestamp",5,null,["x"],"no.such","none"])");
    EXPECT_THAT(logged(), ElementsAre("E vendor tag not initalized yet", "E Unable to find tag: no.such",
                                      "E Unable to find tag: none"));
    EXPECT_EQ(exported(result), R"({"android.sensor.timestamp":[1234567890123]})");
    setResults(R"("android.sensor.timestamp")");
    EXPECT_EQ(exported(result), "{}") << "an unusable list replaces the filter too";
}

// The buffer was filled under another idea of its tags.
TEST_F(AMetadataHandler, ExportsNoValuesOfAnUnknownTypeNorOfANarrowerOneThanTheTags) {
    CameraMetadata buffer = makeMetadata(5, 8);
    for (const unsigned tag : {ANDROID_CONTROL_AE_MODE, ANDROID_CONTROL_AF_MODE, ANDROID_FLASH_MODE})
        addValues<uint8_t>(buffer.get(), tag, {1});
    {
        VendorTags vendor("a", {{"unknown", TYPE_INT64}, {"narrow", TYPE_BYTE}});
        addValues<int64_t>(buffer.get(), kFirstVendorTag, {5});
        addValues<uint8_t>(buffer.get(), kFirstVendorTag + 1, {1, 2, 3, 4});
    }
    VendorTags vendor("a", {{"unknown", -1}, {"narrow", TYPE_INT64}});
    resolveBy(vendor);
    Capture result(std::move(buffer));
    setResults(R"(["a.unknown"])");
    EXPECT_EQ(exported(result), R"({"a.unknown":[]})");
    setResults(R"(["android.control.aeMode","android.control.afMode","a.narrow","android.flash.mode"])");
    const std::string others = exported(result);
    for (const char* name : {"android.control.aeMode", "android.control.afMode", "android.flash.mode"})
        EXPECT_THAT(others, HasSubstr("\"" + std::string(name) + "\":[1]"));
    EXPECT_THAT(others, testing::Not(HasSubstr("a.narrow")));
    EXPECT_THAT(logged(), ElementsAre("E Type not defined for tagId: -2147483648!",
                                      "E Type not defined for tagId: -2147483647!"));
}

// --- Import ---

TEST_F(AMetadataHandler, ImportsAndExportsEachTypeInItsJsonForm) {
    VendorTags vendor(kVendorSection, {{"MaxStreamSize", TYPE_INT32}});
    resolveBy(vendor);
    const struct {
        std::string name, imported, exported;
    } cases[] = {
        {"android.control.aeMode", "[0,255,300,-1,18446744073709551615]", "[0,255,44,255,255]"},
        {"android.control.aeRegions", "[-2147483648,2147483647]", "[-2147483648,2147483647]"},
        {"android.control.aeRegions", arrayOf(32, "-5"), arrayOf(32, "-5")},
        {"android.sensor.timestamp", arrayOf(32, "-1234567890123"), arrayOf(32, "-1234567890123")},
        {"android.sensor.timestamp", arrayOf(33, "-1234567890123"), arrayOf(33, "-1234567890123")},
        {"android.sensor.timestamp", "[-9223372036854775808,9223372036854775807]",
         "[-9223372036854775808,9223372036854775807]"},
        {"android.lens.focusDistance", "[1,0.1,-0.5,1e-60]", "[1.0,0.10000000149011612,-0.5,0.0]"},
        {"android.jpeg.gpsCoordinates", "[1,0.1,-1e300]", "[1.0,0.1,-1e300]"},
        {"android.control.aeCompensationStep", "[[1,-3],[-2147483648,0]]", "[[1,-3],[-2147483648,0]]"},
        {"android.control.aeCompensationStep", "[]", "[]"},
        {std::string(kVendorSection) + ".MaxStreamSize", "[4000,3000]", "[4000,3000]"}};
    for (const auto& c : cases) {
        setResults("[\"" + c.name + "\"]");
        Capture result;
        import(result, "{\"" + c.name + "\":" + c.imported + "}");
        EXPECT_EQ(exported(result), "{\"" + c.name + "\":" + c.exported + "}");
    }
    Capture result;
    import(result, R"({"android.lens.focusDistance":[1e300,-1e300,3.4028235e38],
                       "android.control.aeCompensationStep":[[1,-3]]})");
    EXPECT_THAT(valuesOf<float>(result.current, ANDROID_LENS_FOCUS_DISTANCE),
                ElementsAre(HUGE_VALF, -HUGE_VALF, FLT_MAX));
    EXPECT_THAT(valuesOf<camera_metadata_rational_t>(result.current, ANDROID_CONTROL_AE_COMPENSATION_STEP),
                ElementsAre(camera_metadata_rational_t{1, -3}));
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AMetadataHandler, ResolvesImportedNamesInResultsThenRequestsThenAllTags) {
    VendorTags vendor("v", {{"result", TYPE_BYTE}, {"request", TYPE_BYTE}, {"new", TYPE_BYTE}});
    unsigned next = kFirstVendorTag;
    handler.setVendorTagCallback([&](const char*, const char*, unsigned& id) {
        id = next++;
        return true;
    });
    setResults(R"(["v.x"])");
    setRequests(R"(["v.x","v.y"])");  // v.x is known by another id now, as is v.y
    Capture request(nullptr, Capture::REQUEST);
    import(request, R"({"v.x":[1],"v.y":[1]})");
    EXPECT_TRUE(hasTag(request.current, kFirstVendorTag)) << "the results come first, for a request as well";
    EXPECT_EQ(next, kFirstVendorTag + 3) << "a name in a filter is not resolved again";
    setRequests("[]");
    import(request, R"({"v.new":[1]})");
    EXPECT_EQ(next, kFirstVendorTag + 4);
}

TEST_F(AMetadataHandler, ReportsAndSkipsWhatItCannotImport) {
    VendorTags vendor("v", {{"odd", 77}});
    resolveBy(vendor);
    Capture result;
    import(result, R"({"android.control.aeMode":1, "nothing":[1], "none\u0000.x":[1], "v.none":[1],
                       "v.odd":[1],
                       "android.control.aeCompensationStep":[1,2],
                       "android.colorCorrection.transform":[[1,2],[1,2,3]],
                       "android.control.afMode":[3]})");
    EXPECT_THAT(
        logged(),
        ElementsAre("E Expecting array for: android.control.aeMode", "E Unable to find tag: nothing",
                    "E Unable to find tag: none", "E Failed to get vendor tag",
                    "E Unable to find tag: v.none", "E Type not defined for tagId: -2147483648!",
                    "E Failed to set metadata for v.odd", "E rational parse failed, not expected array",
                    "E Failed to set metadata for android.control.aeCompensationStep",
                    "E rational parse failed, not expected array",
                    "E Failed to set metadata for android.colorCorrection.transform"));
    EXPECT_EQ(get_camera_metadata_entry_count(result.current), 1u);
    EXPECT_THAT(valuesOf<uint8_t>(result.current, ANDROID_CONTROL_AF_MODE), ElementsAre(3));
}

// --- Broken contracts ---

// No LogCapture here: the child process must reach the real log.
TEST(AMetadataHandlerDeathTest, EndsTheProcessOnElementsOfTheWrongKind) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const char* text :
         {"[]", R"({"android.control.aeMode":[1.0]})", R"({"android.control.aeMode":["1"]})",
          R"({"android.control.aeRegions":["1"]})", R"({"android.control.aeRegions":[2147483648]})",
          R"({"android.control.aeRegions":[1.5]})", R"({"android.sensor.timestamp":[9223372036854775808]})",
          R"({"android.sensor.timestamp":[1.0]})", R"({"android.lens.focusDistance":[null]})",
          R"({"android.jpeg.gpsCoordinates":[true]})",
          R"({"android.control.aeCompensationStep":[[1,2.0]]})"}) {
        JsonMessage message;
        ASSERT_TRUE(message.parse(text));
        MetadataHandler handler;
        Capture result;
        EXPECT_EXIT(handler.convertToMetadata(result.md, message.root()), ::testing::KilledBySignal(SIGABRT),
                    "")
            << text;
    }
}

// --- Threads ---

TEST_F(AMetadataHandler, ShowsEveryExportAWholeFilterWhileOthersSetImportAndInstall) {
    CameraMetadata buffer = makeMetadata(3, 8);
    addValues<uint8_t>(buffer.get(), ANDROID_CONTROL_AE_MODE, {1});
    addValues<uint8_t>(buffer.get(), ANDROID_CONTROL_AF_MODE, {2});
    addValues<int64_t>(buffer.get(), ANDROID_SENSOR_TIMESTAMP, {3});
    Capture result(std::move(buffer));
    JsonMessage single, pair;
    ASSERT_TRUE(single.parse(R"(["android.sensor.timestamp"])"));
    ASSERT_TRUE(pair.parse(R"(["android.control.aeMode","android.control.afMode"])"));
    RepeatedActions others;
    others.add([&] {
        handler.setResultsOfInterest(single.root());
        handler.setResultsOfInterest(pair.root());
    });
    others.add([&] { handler.setVendorTagCallback(refuseEveryTag); });
    others.add([&] {
        Capture other;
        import(other, R"({"android.control.aeMode":[1],"v.y":[2]})");
        ASSERT_TRUE(hasTag(other.current, ANDROID_CONTROL_AE_MODE));
    });
    ASSERT_TRUE(waitUntil([&] { return exported(result) != "{}"; }));
    for (int i = 0; i < 20000; ++i) {
        const std::string text = exported(result);
        const bool hasTimestamp = text.find("android.sensor.timestamp") != text.npos;
        ASSERT_EQ(text.find("aeMode") != text.npos, !hasTimestamp) << text;
        ASSERT_EQ(text.find("afMode") != text.npos, !hasTimestamp) << text;
    }
}
