// Events of programs on their way into the files of a session.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>

#include "ChildProcess.h"
#include "EventCollector.h"
#include "EventWriter.h"
#include "ParsedEvent.h"
#include "Program.h"
#include "SessionRecord.h"
#include "Spawn.h"
#include "TemporaryFolder.h"
#include "Timeline.h"

namespace {

using namespace vel::sim;

// What the checker says of the files; its complaints fail the test.
void check(const TemporaryFolder& folder, const std::string& summary, const std::vector<std::string>& has) {
    std::vector<std::string> command{"python3", VEL_CHECK_TRACE, folder.path("trace.json"),
                                     folder.path("session.json"), "--has"};
    command.insert(command.end(), has.begin(), has.end());
    ChildProcess::Options options;
    options.command = command;
    options.hasErrorsInOutput = true;
    ChildProcess checker(options);
    EXPECT_TRUE(checker.waitForLine(summary));
    EXPECT_EQ(checker.wait(), 0) << checker.waitForLine("").value_or("");
}

void writeAll(int fd, const std::string& text) {
    for (size_t written = 0; written < text.size();)
        written += static_cast<size_t>(write(fd, text.data() + written, text.size() - written));
}

TEST(ATrace, KeepsToTheFormatWhateverProgramsTell) {
    setTimeOrigin(steadyNowNs());
    SessionRecord session;
    std::atomic<int> refused{0};
    EventCollector collector([&](const std::string& line) { refused += session.add(line) ? 0 : 1; });
    {
        const EventWriter writer(collector.open().release(), Peer::CAMERA_SERVER);
        const int64_t now = steadyNowNs();
        const Track stream = streamTrack(3);
        events::slice(stream, "frame", "inner", now + 10, now + 20, {});  // within what is told later
        events::slice(stream, "frame", "outer", now, now + 30, JsonObject().add("number", 1e300));
        events::flowStart(stream, "frame", "whole", 1, now + 5);
        events::flowStep(stream, "frame", "whole", 1, now + 6);
        events::flowEnd(stream, "frame", "whole", 1, now + 7);
        events::flowStart(stream, "frame", "without an end", 2, now + 5);
        events::flowEnd(stream, "frame", "without a start", 3, now + 5);
        events::asyncBegin(Track::MESSAGES, "message", "unanswered", 4, {});
        events::asyncEnd(Track::MESSAGES, "message", "unasked", 5, {});
        events::instant(Track::LOG, "log", "\"odd\\ \x01\n\xff \xc3\xa4 \xed\xa0\x80",
                        JsonObject().add("text", std::string(100'000, '\xbf')));
        printLine("error %s", "told by itself");
    }
    const auto other = collector.open();
    const std::string event = R"({"ph":"i","cat":"log","name":"NAME","ts":1e6,"pid":3,"tid":7,"args":{}})";
    writeAll(other, "no event\n{\"ph\":\"i\"}\n" + std::string(EventCollector::kMaxLineBytes + 99, ' ') +
                        event + "\n" + event + "\n" + event.substr(0, 40));
    collector.finish();
    EXPECT_EQ(refused, 2);

    const TemporaryFolder folder;
    session.writeTrace(folder.path("trace.json"));
    session.writeSession(folder.path("session.json"));
    check(folder, " 1 flows",
          {"camera_server: inner", "camera_server: unanswered", "camera_server: error",
           "camera_server: \"odd\\ \x01\n\ufffd \u00e4 \ufffd\ufffd\ufffd", "app: NAME"});
    EXPECT_THAT(folder.read("trace.json"), testing::Not(testing::HasSubstr("unasked")));
}

TEST(AnEventWriter, NeverWaitsForItsReaderAndTellsWhatItDropped) {
    constexpr size_t kEvents = 30'000;  // several megabytes
    Pipe pipe = openPipe();
    auto writer = std::make_unique<EventWriter>(pipe.child.release(), Peer::APP);
    for (size_t number = 0; number < kEvents; ++number)
        events::instant(Track::LOG, "log", "event", JsonObject().add("number", number));
    auto end = std::async(std::launch::async, [&] { writer.reset(); });
    std::string text;
    char buffer[4096];
    for (ssize_t count = 0; (count = read(pipe.parent, buffer, sizeof(buffer))) > 0;)
        text.append(buffer, static_cast<size_t>(count));
    end.wait();

    size_t arrived = 0, dropped = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        ParsedEvent event;
        ASSERT_TRUE(event.parse(line)) << line;
        if (event.name == "event") ++arrived;
        if (event.name == "events dropped")
            dropped += std::stoul(event.args.substr(event.args.find(':') + 1));
    }
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(arrived + dropped, kEvents);
}

TEST(ASession, KeepsTheNewestEventsAndTheStateOfEachCamera) {
    SessionRecord session;
    const auto add = [&](const char* category, const std::string& name) {
        TraceEvent event;
        event.category = category;
        event.name = name;
        event.timeNs = steadyNowNs();
        ASSERT_TRUE(session.add(event.line()));
    };
    add("camera", "camera 0");
    add("log", "the first one");
    for (size_t number = 0; number < SessionRecord::kMaxPageEvents; ++number)
        add("log", "another");
    const TemporaryFolder folder;
    session.writeSession(folder.path("session.json"));
    const std::string text = folder.read("session.json");
    EXPECT_THAT(text, testing::HasSubstr("camera 0"));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("the first one")));
    EXPECT_THROW(session.writeTrace("/dev/null/trace.json"), std::runtime_error);
}

}  // namespace
