#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pthread.h>

#include "DesktopHelperTestAccess.h"
#include "LogCapture.h"

namespace {

using Access = DesktopHelperTestAccess;
using testing::ElementsAre;

constexpr uint32_t kNone = 65535;
constexpr char kTag[] = "VelCameraDesktopChiHelper";

class ACommand : public testing::Test {
  protected:
    ACommand() : helper(Access::create()) { log.clear(); }

    std::string send(const std::string& text) { return helper->handleCommand(text); }
    VelChiDesktopHelper::DesktopSettings& record(uint32_t fwkId) { return Access::settings(*helper, fwkId); }
    std::vector<std::string> logged() const { return log.texts(kTag); }

    // Whether every record is as it was after construction.
    bool registryIsUntouched() {
        for (uint32_t id = 0; id < 16; ++id) {
            const auto& now = record(id);
            if (now.isDesktop || !now.overrideAllowed || now.restartPending ||
                now.currentOverrideId != kNone || now.requiredOverrideId != now.defaultOverrideId) {
                return false;
            }
        }
        return true;
    }

    LogCapture log;
    std::unique_ptr<VelChiDesktopHelper> helper;
};

std::string repeat(const std::string& text, size_t times) {
    std::string result;
    for (size_t i = 0; i < times; ++i)
        result += text;
    return result;
}

// Commands one by one, and all that each does: its reply and its log lines.
struct Row {
    std::string text;
    std::string reply;
    std::vector<std::string> lines = {};
};

TEST_F(ACommand, ThatSaysNothingUsableIsAnsweredAndLoggedWithoutAnEffect) {
    const std::string parse = "E handleCommand: failed to parse command: err=";
    const std::string badOpen = "E handleEventMessage: Failed to parse open command - cameraId ";
    const std::string badClose = "E handleEventMessage: Failed to parse close command - cameraId ";
    const std::string invalid = R"({"error":"Invalid cmd"})";
    const std::string absent = R"({"error":"Not implemented"})";
    const std::string unknown = R"({"error":"Unknown"})";
    std::vector<Row> rows = {
        {"", "PARSE_ERR", {parse + "1 at 0"}},
        {"{", "PARSE_ERR", {parse + "4 at 1"}},
        {"\xEF\xBB\xBF{}", "PARSE_ERR", {parse + "3 at 0"}},
        {R"({"general":{"originalId":0,"overrideId":2}} x)", "PARSE_ERR", {parse + "2 at 44"}},
        {"{}", "OK_HAL"},
        {R"({"other":[1,{"event":{}}],"x":null})", "OK_HAL"},
        {std::string("{}\0garbage", 10), "OK_HAL"},
        {R"({"surface-config":null})", "OK_HAL", {"D Found surface configuration"}},
        {"{\"pad\":\"" + std::string(1024 * 1024, 'x') + "\"}", "OK_HAL"},
        {R"({"event":5})", "OK_HAL"},
        {R"({"event":{}})", "OK_HAL"},
        {R"({"event":{"type":3}})", "OK_HAL"},
        {R"({"event":{"type":"zoom"}})", "OK_HAL", {"E Unknown event type zoom"}},
        {R"({"event":{"type":"cameraOpen","id":"2"}})", "OK_HAL", {badOpen + "2"}},
        {R"({"event":{"type":"cameraOpen","id":"2","isDesktop":1}})", "OK_HAL", {badOpen + "2"}},
        {R"({"event":{"type":"cameraClosed"}})", "OK_HAL", {badClose}},
        {R"({"event":{"type":"cameraClosed","id":"16"}})",
         "OK_HAL",
         {"E handleEventMessage: Failed to parse camera id 16 on close command"}},
        {R"({"general":[]})", "OK_HAL", {"D Found general cmd", "E Invalid cmd"}},
        {R"({"get":"status"})", invalid, {"E Invalid json for get command: status"}},
        {R"({"get":{}})", absent, {"E Get command not implemented for "}},
        {R"({"get":{"what":"version"}})", absent, {"E Get command not implemented for version"}},
        {R"({"get":{"what":["overrideId"]}})", absent, {"E Get command not implemented for "}},
        {R"({"get":{"what":"overrideId","originalId":-5,"clientName":"a"}})",
         unknown,
         {"E Missing or invalid info -5, a"}},
        {R"({"get":{"what":"overrideId","originalId":99}})",
         unknown,
         {"E Failed to parse clientName", "E Missing or invalid info 99, "}},
        {R"({"get":{"what":"overrideId","originalId":"0","clientName":5}})",
         unknown,
         {"E Failed to parse originalId", "E Failed to parse clientName", "E Missing or invalid info 0, "}},
    };
    for (const char* ids :
         {R"("originalId":16,"overrideId":2)", R"("originalId":0,"overrideId":16)",
          R"("originalId":-1,"overrideId":2)", R"("originalId":0,"overrideId":-1)",
          R"("originalId":"0","overrideId":3)", R"("originalId":0,"overrideId":3.0)",
          R"("originalId":0,"overrideId":4294967299)", R"("overrideId":3)", R"("originalId":0)"}) {
        rows.push_back({std::string(R"({"general":{)") + ids + "}}", "OK_HAL", {"D Found general cmd"}});
    }
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text.substr(0, 100));
        log.clear();
        EXPECT_EQ(send(row.text), row.reply);
        EXPECT_EQ(logged(), row.lines);
        EXPECT_TRUE(registryIsUntouched());
    }
    for (const char* text : {"[]", "5", "null", "true", R"("x")", "[1,2]"}) {
        SCOPED_TRACE(text);
        log.clear();
        EXPECT_EQ(send(text), "OK_HAL");
        EXPECT_EQ(log.count("Error: JSON root is not an object"), 5u);
        EXPECT_EQ(log.lines().size(), 5u);
        EXPECT_EQ(send(std::string(R"({"get":)") + text + "}"), invalid);
    }
    EXPECT_TRUE(registryIsUntouched());
}

TEST_F(ACommand, MayNestAsDeeplyAsItLikesOnASmallStack) {
    static std::vector<std::string> replies;
    replies.clear();
    const auto run = [](void* helper) -> void* {
        const size_t levels = 256 * 1024 / 5;
        for (const std::string& text :
             {std::string(1024 * 1024, '['), repeat("{\"a\":", levels) + "1" + repeat("}", levels),
              "{\"get\":" + repeat("[", 100000) + repeat("]", 100000) + "}"}) {
            replies.push_back(static_cast<VelChiDesktopHelper*>(helper)->handleCommand(text));
        }
        return nullptr;
    };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 512 * 1024);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, run, helper.get()), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_THAT(replies, ElementsAre("PARSE_ERR", "OK_HAL", R"({"error":"Invalid cmd"})"));
}

TEST_F(ACommand, RunsEventThenGeneralThenGetEachByTheFirstOfEqualKeys) {
    EXPECT_EQ(
        send(R"({"get":{"what":"overrideId","originalId":3,"clientName":"a.b"},"get":{"what":"version"},)"
             R"("general":{"originalId":3,"overrideId":8,"overrideId":9},)"
             R"("event":{"type":"cameraOpen","id":"3","isDesktop":true},"general":{}})"),
        R"({"overrideId":8})");
    EXPECT_TRUE(record(3).isDesktop);
    // The event comes first: it takes the permission that the general command then lacks.
    EXPECT_EQ(send(R"({"general":{"originalId":5,"overrideId":8},"event":{"type":"cameraOpen","id":"5",)"
                   R"("isDesktop":false,"packageName":"com.korvanta.camera"}})"),
              "OK_HAL");
    EXPECT_EQ(record(5).requiredOverrideId, 5u);
}

TEST_F(ACommand, EventOpensADesktopCameraAndTheFirstOneKeepsIt) {
    const std::string opening = "I handleEventMessage: cameraId ";
    struct {
        const char* event;
        bool zero, one;  // the desktop cameras afterwards
        std::string line;
    } const steps[] = {
        {R"("cameraOpen","id":"0","isDesktop":true)", true, false, opening + "0 is opening - desktop: true"},
        {R"("cameraOpen","id":"1","isDesktop":true)", true, false, opening + "1 is opening - desktop: false"},
        {R"("cameraClosed","id":"0")", false, false, opening + "0 has closed - reset desktop settings"},
        {R"("cameraOpen","id":"1","isDesktop":true)", false, true, opening + "1 is opening - desktop: true"},
        // A second open of the same camera without a close turns it off.
        {R"("cameraOpen","id":"1","isDesktop":true)", false, false,
         opening + "1 is opening - desktop: false"},
    };
    for (const auto& step : steps) {
        log.clear();
        send(std::string(R"({"event":{"type":)") + step.event + "}}");
        EXPECT_EQ(record(0).isDesktop, step.zero);
        EXPECT_EQ(record(1).isDesktop, step.one);
        EXPECT_THAT(logged(), ElementsAre(step.line));
    }
}

TEST_F(ACommand, EventSetsThePermissionByThePackageName) {
    const auto open = [&](const std::string& more) {
        send(R"({"event":{"type":"cameraOpen","id":"3","isDesktop":false)" + more + "}}");
        return record(3).overrideAllowed;
    };
    EXPECT_FALSE(open(R"(,"packageName":"com.korvanta.camera.x")"));
    EXPECT_THAT(logged(), testing::Contains("I handleEventMessage: pkg: com.korvanta.camera.x"));
    send(R"({"event":{"type":"cameraClosed","id":"3"}})");
    EXPECT_FALSE(open("")) << "an open without a readable name keeps the permission";
    EXPECT_FALSE(open(R"(,"packageName":7)"));
    EXPECT_TRUE(open(R"(,"packageName":"")"));
}

TEST_F(ACommand, EventIdMustBeAWholeDecimalTextBelowSixteen) {
    for (const char* id :
         {"\"\"", "\" 1\"", "\"+1\"", "\"-1\"", "\"0x1\"", "\"1 \"", "\"16\"", "\"4294967297\"", "\"65535\"",
          "\"1\\u0000\"", "\"1a\"", "1", "true", "null", "[\"1\"]"}) {
        SCOPED_TRACE(id);
        log.clear();
        EXPECT_EQ(send(std::string(R"({"event":{"type":"cameraOpen","isDesktop":true,"id":)") + id + "}}"),
                  "OK_HAL");
        EXPECT_EQ(log.count("handleEventMessage: Failed to parse open command - cameraId"), 1u);
        EXPECT_EQ(send(std::string(R"({"event":{"type":"cameraClosed","id":)") + id + "}}"), "OK_HAL");
        EXPECT_EQ(log.count("on close command") + log.count("Failed to parse close command"), 1u);
    }
    EXPECT_TRUE(registryIsUntouched());
    send(R"({"event":{"type":"cameraOpen","isDesktop":true,"id":"007"}})");
    EXPECT_TRUE(record(7).isDesktop);
}

TEST_F(ACommand, GeneralSetsTheRequiredId) {
    EXPECT_EQ(send(R"({"general":{"originalId":0,"overrideId":2}})"), "OK_HAL");
    EXPECT_EQ(record(0).requiredOverrideId, 2u);
    EXPECT_THAT(logged(), ElementsAre("D Found general cmd", "D setRequiredOverrideId 0 -> 2"));
}

TEST_F(ACommand, GetAnswersTheOpenIdOrForAClosedCameraByTheClientsOwnPermission) {
    const auto get = [&](const std::string& more) {
        return send(R"({"get":{"what":"overrideId","originalId":0)" + more + "}}");
    };
    record(0).overrideAllowed = false;
    EXPECT_EQ(get(R"(,"clientName":"org.example")"), R"({"overrideId":4})");
    EXPECT_EQ(get(R"(,"clientName":"com.korvanta.camera")"), R"({"overrideId":0})");
    EXPECT_EQ(get(R"(,"clientName":"")"), R"({"error":"Unknown"})");
    log.clear();
    record(0).currentOverrideId = 6;
    EXPECT_EQ(get(R"(,"clientName":"com.korvanta.camera")"), R"({"overrideId":6})");
    EXPECT_EQ(get(""), R"({"overrideId":6})");
    EXPECT_THAT(logged(), ElementsAre("E Failed to parse clientName"));
}

}  // namespace
