#include <gmock/gmock.h>

#include <type_traits>

#include "HelperFixture.h"
#include "WaitsForLock.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

static_assert(sizeof(DesktopCamIdType) == 1);
static_assert(!std::is_copy_constructible<VelChiDesktopHelper>::value);
static_assert(!std::is_move_constructible<VelChiDesktopHelper>::value);
static_assert(std::has_virtual_destructor<VelChiDesktopHelper>::value);

using ARegistry = HelperFixture;

TEST_F(ARegistry, LogsItsHelpersConstructionBeforeItLooksForTheServiceAndItsDestruction) {
    helper.reset();
    log.clear();
    DesktopHelperTestAccess::create();
    EXPECT_THAT(logged(), ElementsAre("D Calling constructor VelChiDesktopHelper", "D Trying to get service",
                                      HasSubstr("D Got service for camera desktop "),
                                      "D Calling destructor ~VelChiDesktopHelper"));
}

TEST_F(ARegistry, StartsWithEveryCameraClosedAndOnlyTheMainCameraOverridden) {
    for (uint32_t id = 0; id < 16; ++id) {
        SCOPED_TRACE(id);
        EXPECT_FALSE(record(id).isDesktop);
        EXPECT_TRUE(record(id).overrideAllowed);
        EXPECT_FALSE(record(id).restartPending);
        EXPECT_EQ(record(id).defaultOverrideId, id == 0 ? 4 : id);
        EXPECT_EQ(record(id).requiredOverrideId, id == 0 ? 4 : id);
        EXPECT_EQ(record(id).currentOverrideId, kNone);
    }
}

TEST_F(ARegistry, MapsEveryOpenCameraThereAndBackByTheLowestFrameworkId) {
    for (uint32_t fwkId = 0; fwkId < 16; ++fwkId)
        record(fwkId).currentOverrideId = 15 - fwkId;
    for (uint32_t fwkId = 0; fwkId < 16; ++fwkId) {
        EXPECT_EQ(helper->getCurrentOverrideId(fwkId), 15 - fwkId);
        EXPECT_EQ(helper->getOriginalCameraId(15 - fwkId), fwkId);
        EXPECT_TRUE(helper->isCameraInOverride(fwkId));
    }
    record(1).currentOverrideId = 1;
    record(14).currentOverrideId = kNone;
    EXPECT_FALSE(helper->isCameraInOverride(1)) << "open under its own id is not in override";
    record(4).currentOverrideId = 4;
    record(0).currentOverrideId = 4;
    EXPECT_EQ(helper->getOriginalCameraId(4), 0u);
    EXPECT_TRUE(helper->isCameraInOverride(4)) << "camera 0 stands before camera 4";
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ARegistry, FallsBackToTheIdItIsAsked) {
    for (const uint32_t id : {16u, kNone, 0x80000000u, 0xFFFFFFFFu})
        EXPECT_FALSE(helper->isValidCameraId(id)) << id;
    EXPECT_EQ(helper->getOriginalCameraId(7), 7u);
    EXPECT_THAT(logged(), IsEmpty()) << "an id that is merely not open is no error";
    EXPECT_EQ(helper->getCurrentOverrideId(0), 0u);
    EXPECT_EQ(helper->getCurrentOverrideId(20), 20u);
    EXPECT_EQ(helper->getOriginalCameraId(100), 100u);
    EXPECT_FALSE(helper->isCameraInOverride(100));
    const auto invalid = MatchesRegex("E getOriginalFwkIdLocked:[0-9]+ Invalid camera id 100");
    EXPECT_THAT(logged(),
                ElementsAre("E getCurrentOverrideIdLocked: Invalid framework id 0",
                            "E getCurrentOverrideIdLocked: Invalid framework id 20", invalid, invalid));
}

TEST_F(ARegistry, TellsDesktopModeByEitherKindOfId) {
    const auto unknownType = static_cast<DesktopCamIdType>(2);
    record(0).isDesktop = true;
    record(0).currentOverrideId = 4;
    EXPECT_TRUE(helper->isDesktopMode(0, FWK_CAMERA_ID));
    EXPECT_FALSE(helper->isDesktopMode(4, FWK_CAMERA_ID));
    EXPECT_TRUE(helper->isDesktopMode(4, OVERRIDE_CAMERA_ID));
    EXPECT_FALSE(helper->isDesktopMode(0, OVERRIDE_CAMERA_ID));
    EXPECT_FALSE(helper->isDesktopMode(4, unknownType));
    EXPECT_THAT(logged(), IsEmpty());
    EXPECT_FALSE(helper->isDesktopMode(16, unknownType));
    EXPECT_THAT(logged(), ElementsAre("E Invalid camera id 16"));
}

TEST_F(ARegistry, AsksForASwitchOnceTheRequiredIdDiffersFromTheOpenOne) {
    uint32_t fwkId = 77;
    record(0).currentOverrideId = 4;
    EXPECT_FALSE(helper->needsCameraIdSwitch(4, fwkId));
    EXPECT_EQ(fwkId, 0u);
    EXPECT_FALSE(record(0).restartPending);
    record(0).requiredOverrideId = 2;
    uint32_t inAndOut = 4;
    EXPECT_TRUE(helper->needsCameraIdSwitch(inAndOut, inAndOut)) << "one variable may serve for both";
    EXPECT_EQ(inAndOut, 0u);
    EXPECT_TRUE(record(0).restartPending);
    EXPECT_THAT(logged(), IsEmpty());

    record(3).currentOverrideId = 9;
    record(3).requiredOverrideId = 2;
    record(3).overrideAllowed = false;
    for (const auto& [cameraId, told] : {std::pair{5u, kNone}, {9u, 3u}, {30u, kNone}}) {
        EXPECT_FALSE(helper->needsCameraIdSwitch(cameraId, fwkId));
        EXPECT_EQ(fwkId, told) << "told even when the override is refused";
    }
    EXPECT_FALSE(record(3).restartPending);
    EXPECT_THAT(logged(), ElementsAre("E needsCameraIdSwitch: Invalid override id 5",
                                      "E needsCameraIdSwitch: Invalid override id 9",
                                      MatchesRegex("E getOriginalFwkIdLocked:[0-9]+ Invalid camera id 30"),
                                      "E needsCameraIdSwitch: Invalid override id 30"));
}

TEST_F(ARegistry, IsLockedByWhateverReadsOrWritesIt) {
    uint32_t opened = 0, fwkId = 0;
    const std::string event = R"({"event":{"isDesktop":true,"id":"0","type":)";
    expectEachWaitsFor(DesktopHelperTestAccess::settingsLock(*helper),
                       {{"open", [&] { helper->updateCameraIdOnHalOpen(opened); }},
                        {"close", [&] { helper->onHalClose(0); }},
                        {"request", [&] { helper->setRequiredOverrideId(0, 2); }},
                        {"open event", [&] { send(event + R"("cameraOpen"}})"); }},
                        {"closed event", [&] { send(event + R"("cameraClosed"}})"); }},
                        {"get", [&] { send(R"({"get":{"what":"overrideId","originalId":0}})"); }},
                        {"desktop mode", [&] { helper->isDesktopMode(0, FWK_CAMERA_ID); }},
                        {"current id", [&] { helper->getCurrentOverrideId(0); }},
                        {"original id", [&] { helper->getOriginalCameraId(4); }},
                        {"override", [&] { helper->isCameraInOverride(4); }},
                        {"switch", [&] { helper->needsCameraIdSwitch(4, fwkId); }}});
}

TEST_F(ARegistry, RefusesTheOverrideToTheCameraApplicationOnly) {
    const std::string refused = "com.korvanta.camera";
    for (const std::string& more : {std::string(), std::string(".pro"), std::string("\0x", 2)})
        EXPECT_FALSE(helper->isOverrideAllowedForPackage(refused + more));
    for (const std::string& name :
         {std::string(), std::string("com.korvanta.camer"), "x" + refused, std::string("com.korvanta.cameRa"),
          std::string("com.korvanta\0camera", 19)})
        EXPECT_TRUE(helper->isOverrideAllowedForPackage(name)) << name;
}

}  // namespace
