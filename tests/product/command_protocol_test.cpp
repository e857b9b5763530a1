#include <gmock/gmock.h>

#include "HelperFixture.h"

namespace {

using testing::ElementsAre;

class ACommand : public HelperFixture {
  protected:
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
    // The reply to the command and what it logs.
    std::vector<std::string> outcomeOf(const std::string& command) {
        log.clear();
        const std::string reply = send(command);
        std::vector<std::string> outcome = logged();
        outcome.insert(outcome.begin(), reply);
        return outcome;
    }
};

TEST_F(ACommand, ThatSaysNothingUsableIsAnsweredAndLoggedWithoutAnEffect) {
    const std::string parse = "E handleCommand: failed to parse command: err=";
    const std::string badOpen = "E handleEventMessage: Failed to parse open command - cameraId ";
    const std::string badClose = "E handleEventMessage: Failed to parse close command - cameraId ";
    const std::string invalid = R"({"error":"Invalid cmd"})";
    const std::string absent = R"({"error":"Not implemented"})";
    const std::string unknown = R"({"error":"Unknown"})";
    // The command, its reply and its log lines.
    std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
        {"", {"PARSE_ERR", parse + "1 at 0"}},
        {R"({"general":{"originalId":0,"overrideId":2}} x)", {"PARSE_ERR", parse + "2 at 44"}},
        {"{}", {"OK_HAL"}},
        {R"({"other":[1,{"event":{}}],"x":null})", {"OK_HAL"}},
        {std::string("{}\0garbage", 10), {"OK_HAL"}},
        {R"({"surface-config":null})", {"OK_HAL", "D Found surface configuration"}},
        {"{\"pad\":\"" + std::string(1024 * 1024, 'x') + "\"}", {"OK_HAL"}},
        {R"({"event":5})", {"OK_HAL"}},
        {R"({"event":{}})", {"OK_HAL"}},
        {R"({"event":{"type":3}})", {"OK_HAL"}},
        {R"({"event":{"type":"zoom"}})", {"OK_HAL", "E Unknown event type zoom"}},
        {R"({"event":{"type":"cameraOpen","id":"2"}})", {"OK_HAL", badOpen + "2"}},
        {R"({"event":{"type":"cameraOpen","id":"2","isDesktop":1}})", {"OK_HAL", badOpen + "2"}},
        {R"({"event":{"type":"cameraClosed"}})", {"OK_HAL", badClose}},
        {R"({"event":{"type":"cameraClosed","id":"16"}})",
         {"OK_HAL", "E handleEventMessage: Failed to parse camera id 16 on close command"}},
        {R"({"general":[]})", {"OK_HAL", "D Found general cmd", "E Invalid cmd"}},
        {R"({"get":"status"})", {invalid, "E Invalid json for get command: status"}},
        {R"({"get":5})", {invalid, "E Invalid json for get command: not an object"}},
        {R"({"get":{}})", {absent, "E Get command not implemented for "}},
        {R"({"get":{"what":"version"}})", {absent, "E Get command not implemented for version"}},
        {R"({"get":{"what":["overrideId"]}})", {absent, "E Get command not implemented for "}},
        {R"({"get":{"what":"overrideId","originalId":-5,"clientName":"a"}})",
         {unknown, "E Missing or invalid info -5, a"}},
        {R"({"get":{"what":"overrideId","originalId":99}})",
         {unknown, "E Failed to parse clientName", "E Missing or invalid info 99, "}},
        {R"({"get":{"what":"overrideId","originalId":"0","clientName":5}})",
         {unknown, "E Failed to parse originalId", "E Failed to parse clientName",
          "E Missing or invalid info 0, "}},
    };
    for (const char* ids :
         {R"("originalId":16,"overrideId":2)", R"("originalId":0,"overrideId":16)",
          R"("originalId":-1,"overrideId":2)", R"("originalId":0,"overrideId":-1)",
          R"("originalId":"0","overrideId":3)", R"("originalId":0,"overrideId":3.0)",
          R"("originalId":0,"overrideId":4294967299)", R"("overrideId":3)", R"("originalId":0)"}) {
        rows.push_back({std::string(R"({"general":{)") + ids + "}}", {"OK_HAL", "D Found general cmd"}});
    }
    for (const auto& [command, outcome] : rows)
        EXPECT_EQ(outcomeOf(command), outcome) << command.substr(0, 100);

    for (const char* text : {"[]", "5", "null", "true", R"("x")", "[1,2]"}) {
        SCOPED_TRACE(text);
        EXPECT_THAT(outcomeOf(text), ElementsAre("OK_HAL"));
        EXPECT_EQ(log.count("Error: JSON root is not an object"), 5u);
        EXPECT_EQ(send(std::string(R"({"get":)") + text + "}"), invalid);
    }
    EXPECT_TRUE(registryIsUntouched());
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
    struct {
        const char* event;
        bool first, last;  // the desktop cameras afterwards
        const char* line;
    } const steps[] = {
        {R"("cameraOpen","id":"0","isDesktop":true)", true, false, "0 is opening - desktop: true"},
        {R"("cameraOpen","id":"15","isDesktop":true)", true, false, "15 is opening - desktop: false"},
        {R"("cameraClosed","id":"0")", false, false, "0 has closed - reset desktop settings"},
        {R"("cameraOpen","id":"15","isDesktop":true)", false, true, "15 is opening - desktop: true"},
        // A second open of the same camera without a close turns it off.
        {R"("cameraOpen","id":"15","isDesktop":true)", false, false, "15 is opening - desktop: false"},
    };
    for (const auto& step : steps) {
        EXPECT_THAT(outcomeOf(std::string(R"({"event":{"type":)") + step.event + "}}"),
                    ElementsAre("OK_HAL", std::string("I handleEventMessage: cameraId ") + step.line));
        EXPECT_EQ(record(0).isDesktop, step.first);
        EXPECT_EQ(record(15).isDesktop, step.last);
    }
}

TEST_F(ACommand, EventSetsThePermissionByThePackageName) {
    const auto open = [&](const std::string& more) {
        send(R"({"event":{"type":"cameraOpen","id":"3","isDesktop":false)" + more + "}}");
        return record(3).overrideAllowed;
    };
    EXPECT_FALSE(open(R"(,"packageName":"com.korvanta.camera.x")"));
    EXPECT_THAT(logged(), testing::Contains("I handleEventMessage: pkg: com.korvanta.camera.x"));
    EXPECT_FALSE(open("")) << "an open without a readable name keeps the permission";
    EXPECT_FALSE(open(R"(,"packageName":7)"));
    EXPECT_TRUE(open(R"(,"packageName":"")"));
}

TEST_F(ACommand, EventOfACloseEndsDesktopModeAlone) {
    auto& settings = record(3);
    settings.isDesktop = settings.restartPending = true;
    settings.overrideAllowed = false;
    settings.currentOverrideId = 5;
    send(R"({"event":{"type":"cameraClosed","id":"3"}})");
    EXPECT_FALSE(settings.isDesktop);
    EXPECT_TRUE(settings.restartPending);
    EXPECT_FALSE(settings.overrideAllowed);
    EXPECT_EQ(settings.currentOverrideId, 5u);
}

TEST_F(ACommand, EventIdMustBeAWholeDecimalTextBelowSixteen) {
    for (const char* id :
         {"\"\"", "\" 1\"", "\"+1\"", "\"-1\"", "\"0x1\"", "\"1 \"", "\"16\"", "\"4294967297\"", "\"65535\"",
          "\"1\\u0000\"", "\"1a\"", "\"a\"", "1", "true", "null", "[\"1\"]"}) {
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
    EXPECT_THAT(outcomeOf(R"({"general":{"originalId":0,"overrideId":2}})"),
                ElementsAre("OK_HAL", "D Found general cmd", "D setRequiredOverrideId 0 -> 2"));
    EXPECT_EQ(record(0).requiredOverrideId, 2u);
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
