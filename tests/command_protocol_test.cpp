#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pthread.h>

#include "DesktopHelperTestAccess.h"
#include "LogCapture.h"

namespace {

using Access = DesktopHelperTestAccess;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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

TEST_F(ACommand, ThatIsNoJsonIsRefusedWithCodeAndOffset) {
    const std::pair<std::string, const char*> cases[] = {
        {"", "err=1 at 0"},         {"  ", "err=1 at 2"},
        {"{", "err=4 at 1"},        {"{}x", "err=2 at 2"},
        {"OK", "err=3 at 0"},       {R"({"a":1,})", "err=4 at 7"},
        {R"({"a"})", "err=5 at 4"}, {"\xEF\xBB\xBF{}", "err=3 at 0"},
        {"1e400", "err=13 at 0"},   {R"({"general":{"originalId":0,"overrideId":2}} x)", "err=2 at 44"},
    };
    for (const auto& [text, failure] : cases) {
        SCOPED_TRACE(text);
        log.clear();
        EXPECT_EQ(send(text), "PARSE_ERR");
        EXPECT_THAT(logged(),
                    ElementsAre(std::string("E handleCommand: failed to parse command: ") + failure));
    }
    EXPECT_TRUE(registryIsUntouched());
}

TEST_F(ACommand, ThatIsNoObjectIsAnsweredWithFiveLinesAndNoEffect) {
    for (const char* text : {"[]", "5", "null", "true", R"("x")", "[1,2]"}) {
        SCOPED_TRACE(text);
        log.clear();
        EXPECT_EQ(send(text), "OK_HAL");
        EXPECT_EQ(log.count("Error: JSON root is not an object"), 5u);
        EXPECT_EQ(log.lines().size(), 5u);
    }
    EXPECT_TRUE(registryIsUntouched());
}

TEST_F(ACommand, WithNothingKnownIsAccepted) {
    EXPECT_EQ(send("{}"), "OK_HAL");
    EXPECT_EQ(send(R"({"other":[1,{"event":{}}],"x":null})"), "OK_HAL");
    EXPECT_EQ(send(std::string("{}\0garbage", 10)), "OK_HAL") << "a NUL ends the text";
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(send(R"({"surface-config":null})"), "OK_HAL");
    EXPECT_THAT(logged(), ElementsAre("D Found surface configuration"));
    EXPECT_EQ(send("{\"pad\":\"" + std::string(1024 * 1024, 'x') + "\"}"), "OK_HAL");
}

TEST_F(ACommand, MayNestAsDeeplyAsItLikesOnASmallStack) {
    struct Job {
        VelChiDesktopHelper* helper;
        std::vector<std::string> replies;
    } job{helper.get(), {}};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 512 * 1024);
    pthread_t thread;
    ASSERT_EQ(
        pthread_create(
            &thread, &attributes,
            [](void* argument) -> void* {
                auto* todo = static_cast<Job*>(argument);
                const size_t levels = 256 * 1024 / 5;
                for (const std::string& text :
                     {std::string(1024 * 1024, '['), repeat("{\"a\":", levels) + "1" + repeat("}", levels),
                      "{\"get\":" + repeat("[", 100000) + repeat("]", 100000) + "}"}) {
                    todo->replies.push_back(todo->helper->handleCommand(text));
                }
                return nullptr;
            },
            &job),
        0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_THAT(job.replies, ElementsAre("PARSE_ERR", "OK_HAL", R"({"error":"Invalid cmd"})"));
}

TEST_F(ACommand, UsesTheFirstOfTwoEqualKeys) {
    record(0).currentOverrideId = 4;
    EXPECT_EQ(send(R"({"get":{"what":"overrideId","originalId":0},"get":{"what":"version"}})"),
              R"({"overrideId":4})");
    send(
        R"({"general":{"originalId":1,"overrideId":5,"overrideId":6},"general":{"originalId":2,"overrideId":7}})");
    EXPECT_EQ(record(1).requiredOverrideId, 5u);
    EXPECT_EQ(record(2).requiredOverrideId, 2u);
}

TEST_F(ACommand, RunsEventThenGeneralThenGet) {
    EXPECT_EQ(send(R"({"get":{"what":"overrideId","originalId":3,"clientName":"a.b"},)"
                   R"("general":{"originalId":3,"overrideId":8},)"
                   R"("event":{"type":"cameraOpen","id":"3","isDesktop":true}})"),
              R"({"overrideId":8})");
    EXPECT_TRUE(record(3).isDesktop);

    // The event comes first: it takes the permission that the general command then lacks.
    EXPECT_EQ(send(R"({"general":{"originalId":5,"overrideId":8},"event":{"type":"cameraOpen","id":"5",)"
                   R"("isDesktop":false,"packageName":"com.korvanta.camera"}})"),
              "OK_HAL");
    EXPECT_EQ(record(5).requiredOverrideId, 5u);
}

TEST_F(ACommand, EventOpensADesktopCameraAndTheFirstOneKeepsIt) {
    send(R"({"event":{"type":"cameraOpen","id":"0","isDesktop":true}})");
    send(R"({"event":{"type":"cameraOpen","id":"1","isDesktop":true}})");
    EXPECT_TRUE(record(0).isDesktop);
    EXPECT_FALSE(record(1).isDesktop);
    send(R"({"event":{"type":"cameraClosed","id":"0"}})");
    send(R"({"event":{"type":"cameraOpen","id":"1","isDesktop":true}})");
    EXPECT_FALSE(record(0).isDesktop);
    EXPECT_TRUE(record(1).isDesktop);
    send(R"({"event":{"type":"cameraOpen","id":"1","isDesktop":true}})");
    EXPECT_FALSE(record(1).isDesktop) << "a second open of the same camera without a close turns it off";
    EXPECT_THAT(logged(), ElementsAre("I handleEventMessage: cameraId 0 is opening - desktop: true",
                                      "I handleEventMessage: cameraId 1 is opening - desktop: false",
                                      "I handleEventMessage: cameraId 0 has closed - reset desktop settings",
                                      "I handleEventMessage: cameraId 1 is opening - desktop: true",
                                      "I handleEventMessage: cameraId 1 is opening - desktop: false"));
}

TEST_F(ACommand, EventSetsThePermissionByThePackageName) {
    send(
        R"({"event":{"type":"cameraOpen","id":"3","isDesktop":false,"packageName":"com.korvanta.camera.x"}})");
    EXPECT_FALSE(record(3).overrideAllowed);
    EXPECT_THAT(logged(), testing::Contains("I handleEventMessage: pkg: com.korvanta.camera.x"));
    send(R"({"event":{"type":"cameraClosed","id":"3"}})");
    send(R"({"event":{"type":"cameraOpen","id":"3","isDesktop":false}})");
    send(R"({"event":{"type":"cameraOpen","id":"3","isDesktop":false,"packageName":7}})");
    EXPECT_FALSE(record(3).overrideAllowed) << "an open without a readable name keeps the permission";
    send(R"({"event":{"type":"cameraOpen","id":"3","isDesktop":false,"packageName":""}})");
    EXPECT_TRUE(record(3).overrideAllowed);
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

TEST_F(ACommand, EventThatCannotBeReadIsLoggedByItsOwnLine) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {R"({"event":5})", {}},
        {R"({"event":{}})", {}},
        {R"({"event":{"type":3}})", {}},
        {R"({"event":{"type":"zoom"}})", {"E Unknown event type zoom"}},
        {R"({"event":{"type":"cameraOpen","id":"2"}})",
         {"E handleEventMessage: Failed to parse open command - cameraId 2"}},
        {R"({"event":{"type":"cameraOpen","id":"2","isDesktop":1}})",
         {"E handleEventMessage: Failed to parse open command - cameraId 2"}},
        {R"({"event":{"type":"cameraClosed"}})",
         {"E handleEventMessage: Failed to parse close command - cameraId "}},
        {R"({"event":{"type":"cameraClosed","id":"16"}})",
         {"E handleEventMessage: Failed to parse camera id 16 on close command"}},
    };
    for (const auto& [text, lines] : cases) {
        SCOPED_TRACE(text);
        log.clear();
        EXPECT_EQ(send(text), "OK_HAL");
        EXPECT_EQ(logged(), lines);
    }
    EXPECT_TRUE(registryIsUntouched());
}

TEST_F(ACommand, GeneralSetsTheRequiredIdAndStaysSilentOnBadIds) {
    EXPECT_EQ(send(R"({"general":{"originalId":0,"overrideId":2}})"), "OK_HAL");
    EXPECT_EQ(record(0).requiredOverrideId, 2u);
    EXPECT_THAT(logged(), ElementsAre("D Found general cmd", "D setRequiredOverrideId 0 -> 2"));

    for (const char* ids :
         {R"("originalId":16,"overrideId":2)", R"("originalId":0,"overrideId":16)",
          R"("originalId":-1,"overrideId":2)", R"("originalId":0,"overrideId":-1)",
          R"("originalId":"0","overrideId":3)", R"("originalId":0,"overrideId":3.0)",
          R"("originalId":0,"overrideId":4294967299)", R"("overrideId":3)", R"("originalId":0)"}) {
        SCOPED_TRACE(ids);
        log.clear();
        EXPECT_EQ(send(std::string(R"({"general":{)") + ids + "}}"), "OK_HAL");
        EXPECT_THAT(logged(), ElementsAre("D Found general cmd"));
        EXPECT_EQ(record(0).requiredOverrideId, 2u);
    }
    log.clear();
    EXPECT_EQ(send(R"({"general":[]})"), "OK_HAL");
    EXPECT_THAT(logged(), ElementsAre("D Found general cmd", "E Invalid cmd"));
}

TEST_F(ACommand, GetAnswersTheOpenIdWhoeverAsks) {
    record(0).currentOverrideId = 4;
    EXPECT_EQ(send(R"({"get":{"what":"overrideId","originalId":0,"clientName":"com.korvanta.camera"}})"),
              R"({"overrideId":4})");
    EXPECT_THAT(logged(), IsEmpty());
    EXPECT_EQ(send(R"({"get":{"what":"overrideId","originalId":0}})"), R"({"overrideId":4})");
    EXPECT_THAT(logged(), ElementsAre("E Failed to parse clientName"));
}

TEST_F(ACommand, GetAnswersForAClosedCameraByTheClientName) {
    EXPECT_EQ(send(R"({"get":{"what":"overrideId","originalId":0,"clientName":"org.example"}})"),
              R"({"overrideId":4})");
    record(0).overrideAllowed = false;
    EXPECT_EQ(send(R"({"get":{"what":"overrideId","originalId":0,"clientName":"org.example"}})"),
              R"({"overrideId":4})")
        << "the client's own permission counts, not the record's";
    EXPECT_EQ(send(R"({"get":{"what":"overrideId","originalId":0,"clientName":"com.korvanta.camera"}})"),
              R"({"overrideId":0})");
    EXPECT_EQ(send(R"({"get":{"what":"overrideId","originalId":0,"clientName":""}})"),
              R"({"error":"Unknown"})");
    EXPECT_EQ(send(R"({"get":{"what":"overrideId","originalId":0}})"), R"({"error":"Unknown"})");
}

TEST_F(ACommand, GetThatCannotBeAnsweredSaysWhy) {
    const std::tuple<const char*, const char*, std::vector<std::string>> cases[] = {
        {R"({"get":"status"})", R"({"error":"Invalid cmd"})", {"E Invalid json for get command: status"}},
        {R"({"get":{}})", R"({"error":"Not implemented"})", {"E Get command not implemented for "}},
        {R"({"get":{"what":"version"}})",
         R"({"error":"Not implemented"})",
         {"E Get command not implemented for version"}},
        {R"({"get":{"what":["overrideId"]}})",
         R"({"error":"Not implemented"})",
         {"E Get command not implemented for "}},
        {R"({"get":{"what":"overrideId","originalId":-5,"clientName":"a"}})",
         R"({"error":"Unknown"})",
         {"E Missing or invalid info -5, a"}},
        {R"({"get":{"what":"overrideId","originalId":99}})",
         R"({"error":"Unknown"})",
         {"E Failed to parse clientName", "E Missing or invalid info 99, "}},
        {R"({"get":{"what":"overrideId","originalId":"0","clientName":5}})",
         R"({"error":"Unknown"})",
         {"E Failed to parse originalId", "E Failed to parse clientName", "E Missing or invalid info 0, "}},
    };
    for (const auto& [text, reply, lines] : cases) {
        SCOPED_TRACE(text);
        log.clear();
        EXPECT_EQ(send(text), reply);
        EXPECT_EQ(logged(), lines);
    }
    for (const char* get : {"null", "5", "true", "[]"}) {
        EXPECT_EQ(send(std::string(R"({"get":)") + get + "}"), R"({"error":"Invalid cmd"})");
    }
    EXPECT_TRUE(registryIsUntouched());
}

}  // namespace
