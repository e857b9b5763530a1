#include <gmock/gmock.h>

#include <thread>

#include "HelperFixture.h"
#include "ImgSubHelperTestAccess.h"
#include "RepeatedActions.h"
#include "ScriptedProducer.h"

#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

namespace {

using namespace android;
using testing::ElementsAre;
using testing::IsEmpty;

using Members = std::map<std::string, std::string>;

// The command, with some of its members replaced: each change is "key":value, and no value takes the key out.
std::string command(const Members& changes = {}) {
    Members members = {{"version", "\"v1\""},
                       {"image-width", "640"},
                       {"image-height", "480"},
                       {"hal-consumer-usage", "3"},
                       {"hal-consumer-buffer-count", "10"},
                       {"hal-consumer-v4l2-format", "\"RAW_PRIVATE\""}};
    for (const auto& [key, value] : changes)
        members[key] = value;
    std::string text;
    for (const auto& [key, value] : members) {
        if (!value.empty()) text += (text.empty() ? "\"" : ",\"") + key + "\":" + value;
    }
    return "{\"imgsub-configure-stream\":{" + text + "}}";
}

std::string accepted(uint32_t width = 460896) {
    return "{\"app-consumer-width\":" + std::to_string(width) +
           R"(,"app-consumer-height":1,"app-consumer-buffer-count":6,"app-consumer-v4l2-format":"RAW_PRIVATE",)"
           R"("using-private-header-version":"v1"})";
}

// Looks at the queue behind a surface of this process: over HIDL a usage has 32 bits only.
struct Wrapper : TWGraphicBufferProducer<HGraphicBufferProducer> {
    using TWGraphicBufferProducer::TWGraphicBufferProducer;
    static uint64_t consumerUsage(HGraphicBufferProducer& surface) {
        uint64_t usage = 0;
        (static_cast<TWGraphicBufferProducer&>(surface).*&Wrapper::mBase)->getConsumerUsage(&usage);
        return usage;
    }
};

class AnImgSubConfiguration : public ConnectedHelperFixture {
  protected:
    // The surfaces set since this was asked for the last time.
    std::vector<std::string> surfaceCalls() {
        const std::vector<std::string> calls = service->calls(Operation::SET_SURFACE);
        service->forgetCalls();
        return calls;
    }
    void openDesktopCamera() { send(R"({"event":{"type":"cameraOpen","id":"1","isDesktop":true}})"); }
};

TEST_F(AnImgSubConfiguration, CreatesTheHelperAndIsAnsweredAloneAndAfterTheFilters) {
    std::string text = command();
    text.insert(1, R"("general":{"originalId":0,"overrideId":2},"get":{"what":"version"},"event":5,)"
                   R"("filter-results":["no.such"],)");
    EXPECT_EQ(send(text), accepted());
    EXPECT_EQ(record(0).requiredOverrideId, 4u);
    EXPECT_NE(helper->mImgSubHelper, nullptr);
    EXPECT_THAT(surfaceCalls(), ElementsAre("setSurface 7 null", "setSurface 7 producer"));
    EXPECT_EQ(log.count("handleImgSubStreamConfig called"), 1u);
    EXPECT_EQ(log.count("Unable to find tag: no.such"), 1u);
    for (const char* value : {"null", "5", "[]", "\"x\""})
        EXPECT_EQ(send(std::string(R"({"imgsub-configure-stream":)") + value + "}"), "error");

    vel::host::clearLocalServices();
    helper->disconnectFromServiceLocked();
    helper->mImgSubHelper.reset();
    EXPECT_EQ(send(command()), accepted());
    EXPECT_NE(helper->mImgSubHelper, nullptr) << "also without a service";
    EXPECT_EQ(vel::host::localLookUpCount("default"), 0u) << "which it does not look for";
}

TEST_F(AnImgSubConfiguration, WithAnUnreadableMemberNamesItAndChangesNothing) {
    send(command());
    const auto before = helper->mImgSubHelper;
    surfaceCalls();
    const char* next = "hal-merge-streams";
    for (const char* key : {"hal-consumer-v4l2-format", "hal-consumer-buffer-count", "hal-consumer-usage",
                            "image-height", "image-width", "version"}) {
        for (const char* value : {"", "null", "[]", "{}", "1.5", "true", "4294967296"})
            EXPECT_EQ(send(command({{key, value}, {next, ""}})), std::string(key) + " missing") << value;
        next = key;
    }
    EXPECT_EQ(helper->mImgSubHelper, before);
    EXPECT_THAT(surfaceCalls(), IsEmpty());
}

TEST_F(AnImgSubConfiguration, ThatIsRefusedEndsTheEarlierSubstitution) {
    const std::string noReader = "Failed to create AImageReader";
    std::vector<std::pair<Members, std::string>> cases = {
        {{{"hal-consumer-v4l2-format", "\"NV12\""}}, "Invalid format"},
        {{{"image-width", "50000"}, {"image-height", "50000"}}, noReader},
        {{{"image-width", "-1000"}, {"image-height", "1"}}, noReader},
        {{{"image-width", "2147483647"}, {"image-height", "1"}}, noReader}};
    for (const char* count : {"0", "-1", "63", "64", "100000"})
        cases.push_back({{{"hal-consumer-buffer-count", count}}, noReader});
    for (const auto& [changes, reply] : cases) {
        SCOPED_TRACE(command(changes));
        send(command());
        surfaceCalls();
        EXPECT_EQ(send(command(changes)), reply);
        EXPECT_EQ(helper->mImgSubHelper, nullptr);
        EXPECT_THAT(surfaceCalls(), ElementsAre("setSurface 7 null"));
    }
    EXPECT_THAT(logged(), testing::Contains("E Bad format received: NV12"));
    EXPECT_EQ(log.count(noReader), cases.size() - 1);
}

// Whoever still holds the helper may not go on with a surface that the service takes back.
TEST_F(AnImgSubConfiguration, EndsForTheHelperBeforeItEndsForTheService) {
    VelChiDesktopHelper* const owner = helper.get();  // during its destructor too
    const std::pair<const char*, std::function<void()>> ends[] = {{"configuration", [&] { send(command()); }},
                                                                  {"close", [&] { helper->onHalClose(1); }},
                                                                  {"exit", [&] { helper.reset(); }}};
    openDesktopCamera();
    for (const auto& [name, end] : ends) {
        SCOPED_TRACE(name);
        send(command());
        const auto held = helper->mImgSubHelper;
        service->forgetCalls();
        service->during(Operation::SET_SURFACE, [&, owner] {
            EXPECT_EQ(owner->mImgSubHelper, nullptr) << "neither the old one nor a new one";
            EXPECT_FALSE(ImgSubHelperTestAccess::isAppConnected(*held));
        });
        end();
        service->during(Operation::SET_SURFACE, nullptr);
        EXPECT_THAT(service->calls(), testing::Contains("setSurface 7 null"));
    }
}

TEST_F(AnImgSubConfiguration, AsksTheApplicationForRowsOfTheReadersShape) {
    const sp<ScriptedProducer> queue = new ScriptedProducer;
    send(command());
    service->offerSurface(ClientType::CLIENT_IMG_SUB, new Wrapper(queue));
    helper->mImgSubHelper->imgSubGetOutputFrameToFill(0);
    EXPECT_THAT(queue->calls(), testing::Contains("dequeue 460896x1 format 36 usage 0x30"));
}

TEST_F(AnImgSubConfiguration, TakesSizesThatWrapToASmallFrame) {
    for (const auto& [width, height] : {std::pair{"0", "0"}, {"65536", "65536"}, {"-1", "1"}}) {
        EXPECT_EQ(send(command({{"image-width", width}, {"image-height", height}})), accepted(96));
        EXPECT_NE(std::atomic_exchange(&helper->mImgSubHelper, {}), nullptr);
    }
}

TEST_F(AnImgSubConfiguration, MergesStreamsWhenAskedByANumberFromOneOn) {
    for (const auto& [asked, merges] :
         {std::pair{"\"x\"", false}, {"-1", false}, {"0", false}, {"1", true}, {"2", true}}) {
        EXPECT_EQ(send(command({{"hal-merge-streams", asked}})), accepted());
        EXPECT_EQ(ImgSubHelperTestAccess::mergesStreams(*helper->mImgSubHelper), merges) << asked;
    }
}

TEST_F(AnImgSubConfiguration, GivesTheReaderTheAskedUsageOrItsOwn) {
    for (const auto& [asked, expected] :
         {std::pair{"-1", uint64_t{3}}, {"0", 0}, {"51", 51}, {"-2", UINT64_MAX - 1}}) {
        EXPECT_EQ(send(command({{"hal-consumer-usage", asked}, {"hal-consumer-buffer-count", "62"}})),
                  accepted());
        const auto surface = service->surface(ClientType::CLIENT_IMG_SUB);
        EXPECT_EQ(Wrapper::consumerUsage(*surface), expected);
    }
}

TEST_F(AnImgSubConfiguration, EndsWithTheCloseOfADesktopCameraOnly) {
    send(command());
    helper->onHalClose(1);
    EXPECT_NE(helper->mImgSubHelper, nullptr);
    openDesktopCamera();
    surfaceCalls();
    helper->onHalClose(1);
    EXPECT_EQ(helper->mImgSubHelper, nullptr);
    helper->onHalClose(1);
    EXPECT_THAT(surfaceCalls(), ElementsAre("setSurface 7 null")) << "nothing was left to end";
}

TEST_F(AnImgSubConfiguration, EndsWithTheNodeUnlessAnotherHolderUsesTheHelper) {
    helper->ImgSubNodeDisconnect();
    EXPECT_THAT(surfaceCalls(), ElementsAre("setSurface 7 null"));

    send(command());
    surfaceCalls();
    std::shared_ptr<VelImgSubHelper> frameThreads = std::atomic_load(&helper->mImgSubHelper);
    helper->ImgSubNodeDisconnect();
    EXPECT_EQ(helper->mImgSubHelper, frameThreads);
    EXPECT_THAT(surfaceCalls(), IsEmpty());

    const std::weak_ptr<VelImgSubHelper> watched = frameThreads;
    frameThreads.reset();
    service->during(Operation::SET_SURFACE, [&] { EXPECT_TRUE(watched.expired()); });
    helper->ImgSubNodeDisconnect();
    service->during(Operation::SET_SURFACE, nullptr);
    EXPECT_THAT(surfaceCalls(), ElementsAre("setSurface 7 null"));
}

TEST_F(AnImgSubConfiguration, AnnouncesTheHalWithoutLimits) {
    service->setReply(ClientType::CLIENT_APP, "FINE");
    helper->sendImgSubHalReadyToApp();
    EXPECT_THAT(
        service->calls(),
        ElementsAre(R"(sendCommand 0 {"ImgSubEvent":{"ImgSubHalReady":{"max-width":0,"max-height":0}}})"));
    EXPECT_EQ(log.count("sendImgSubHalReadyToApp: App replied FINE"), 1u);
}

// It asks for the application's surface while the service gets the surface of the new reader.
TEST_F(AnImgSubConfiguration, KeepsTheEarlierHelperFromTheNewReader) {
    send(command());
    const auto earlier = helper->mImgSubHelper;
    service->block(Operation::GET_SURFACE);
    std::thread frames([&] { EXPECT_EQ(earlier->imgSubGetOutputFrameToFill(0), nullptr); });
    EXPECT_TRUE(service->awaitBlocked(Operation::GET_SURFACE));
    EXPECT_EQ(send(command()), accepted(460896)) << "the busy link does not hold it up";
    service->unblock(Operation::GET_SURFACE);
    frames.join();
}

// Reconfigured, closed and disconnected at once while a frame thread uses whatever helper there is: each
// helper ends once, and the last one leaves no surface behind.
TEST_F(AnImgSubConfiguration, MayBeReplacedAndEndedFromSeveralThreadsAtOnce) {
    openDesktopCamera();
    RepeatedActions others;
    others.add([&] { helper->onHalClose(1); });
    others.add([&] { helper->ImgSubNodeDisconnect(); });
    others.add([&] {
        const auto current = std::atomic_load(&helper->mImgSubHelper);
        if (current != nullptr) (void)current->imgSubGetOutputFrameToFill(0);
    });
    for (int round = 0; round < 200; ++round)
        EXPECT_EQ(send(command()), accepted());
    others.stop();
    helper->onHalClose(1);
    EXPECT_EQ(helper->mImgSubHelper, nullptr);
}

}  // namespace
