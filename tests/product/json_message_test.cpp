#include "JsonMessage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "AllocationCounter.h"
#include "DeepText.h"
#include "JsonUtils.h"
#include "NeverDestroyed.h"

using android::JsonMessage;

namespace {

using android::JsonUtils;

std::string nestedArrays(size_t levels) {
    return std::string(levels, '[') + std::string(levels, ']');
}

TEST(JsonMessage, WritesWhatWasParsedOrBuiltAndKeepsNothingOfTheMessageBefore) {
    JsonMessage message;
    for (const char* text : {R"({"a":[1,-2.5,"x",true,null,{}]})", "[]", "\"x\"", "5", "null", "false"}) {
        EXPECT_TRUE(message.parse(" " + std::string(text) + "\n")) << text;
        EXPECT_EQ(text, message.toText());
    }
    EXPECT_TRUE(message.parse(std::string("{\"a\":1}\0garbage", 15))) << "a NUL ends the text";
    EXPECT_EQ(message.toText(), "{\"a\":1}");
    message.reset();
    message.root().AddMember("n", 5U, message.allocator());
    EXPECT_EQ(message.toText(), R"({"n":5})");

    ASSERT_TRUE(message.parse("{\"a\":\"" + std::string(200000, 'x') + "\"}"));
    ASSERT_FALSE(message.parse("{"));
    EXPECT_TRUE(message.root().IsNull());
    message.reset();
    EXPECT_EQ(rapidjson::kParseErrorNone, message.errorCode());
    EXPECT_EQ(message.errorOffset(), 0U);
    ASSERT_FALSE(message.parse("{"));
    ASSERT_TRUE(message.parse("{\"b\":1}"));
    EXPECT_EQ(rapidjson::kParseErrorNone, message.errorCode());
    EXPECT_EQ(message.errorOffset(), 0U);
    EXPECT_EQ(message.toText(), "{\"b\":1}");
}

TEST(JsonMessage, ReportsCodeAndOffsetOfTheError) {
    struct {
        std::string text;
        int code;
        size_t offset;
    } const rows[] = {
        {"", 1, 0},
        {"{", 4, 1},
        {"{}x", 2, 2},
        {" ]", 3, 1},  // not an empty text
        {R"({"a":1,})", 4, 7},
        {R"("\ud800")", 9, 1},
        {"1e400", 13, 0},
        {"/* */{}", 3, 0},
        {"\xEF\xBB\xBF{}", 3, 0},                // a byte order mark
        {std::string("\0{}", 3), 1, 0},          // nothing before the NUL
        {std::string("{\"a\":\0 1}", 9), 3, 5},  // the text ends inside
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        JsonMessage message;
        EXPECT_FALSE(message.parse(row.text));
        EXPECT_EQ(row.code, message.errorCode());
        EXPECT_EQ(row.offset, message.errorOffset());
        EXPECT_TRUE(message.root().IsNull());
    }
}

TEST(JsonMessage, RefusesToWriteNumbersThatAreNotFinite) {
    for (double number : {std::nan(""), std::numeric_limits<double>::infinity()}) {
        JsonMessage message;
        message.root().AddMember("a", 1, message.allocator());
        message.root().AddMember("b", number, message.allocator());
        std::string text = "stale";
        EXPECT_FALSE(message.serialise(text));
        EXPECT_EQ(text, "");
        EXPECT_EQ(message.toText(), "");
        message.root()["b"].SetInt(2);
        EXPECT_TRUE(message.serialise(text));
        EXPECT_EQ(text, R"({"a":1,"b":2})");
    }
}

TEST(JsonMessage, DeepTextsNeedNoDeepStackAndFailAtTheirEnd) {
    onASmallStack([] {
        JsonMessage message;
        EXPECT_TRUE(message.parse(nestedArrays(500000)));
        EXPECT_TRUE(message.parse(repeated("{\"a\":", 500000) + "1" + std::string(500000, '}')));
        for (const std::string& text :
             {std::string(1 << 20, '['), " \n" + repeated("{\"a\":", (256 << 10) / 5)}) {
            EXPECT_FALSE(message.parse(text));
            EXPECT_EQ(rapidjson::kParseErrorValueInvalid, message.errorCode());
            EXPECT_EQ(text.size(), message.errorOffset());
        }
    });
}

int gEnds = 0;

struct Witness {
    ~Witness() { ++gEnds; }
};

TEST(NeverDestroyed, OutlivesItsScope) {
    { android::NeverDestroyed<Witness> global; }
    EXPECT_EQ(gEnds, 0);
}

TEST(JsonMessage, SmallMessagesLeaveTheHeapAloneAndLargerOnesGrowByOneChunk) {
    if (!AllocationCounter::available()) GTEST_SKIP() << "the sanitizer owns the heap";
    const std::string event =
        R"({"event":{"type":"cameraOpen","id":"0","isDesktop":true,"packageName":"com.example.desktop\n"}})";
    std::string out;
    out.reserve(256);
    AllocationCounter counter;
    JsonMessage message;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(message.parse(event));
        bool isDesktop = false;
        ASSERT_EQ(JsonUtils::parseValue(message.root()["event"], "isDesktop", isDesktop, -1), 0);
        message.reset();
        message.root().AddMember("general", 1, message.allocator());
        for (int j = 0; j < 10; ++j)
            ASSERT_FALSE(message.parse("{\"a\":"));
        message.reset();
        message.allocator().Malloc(5 * 1024);
    }
    EXPECT_EQ(counter.count(), 0U);
    ASSERT_TRUE(message.parse(event));
    ASSERT_TRUE(message.serialise(out));
    EXPECT_EQ(counter.count(), 2U) << "for the text, and for the writer's levels";
    for (rapidjson::SizeType bytes : {20000, 20000, 20000})
        message.allocator().Malloc(bytes);
    EXPECT_EQ(counter.count(), 3U);
}

}  // namespace
