#include "JsonMessage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>

#include "AllocationCounter.h"
#include "JsonUtils.h"

namespace {

// As large as the smallest stack that a binder or HAL thread is given.
constexpr size_t kSmallStackBytes = 256 * 1024;

void onASmallStack(std::function<void()> body) {
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, kSmallStackBytes));
    const auto run = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, &attributes, run, &body));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    pthread_attr_destroy(&attributes);
}

std::string repeated(const std::string& part, size_t times) {
    std::string text;
    for (size_t i = 0; i < times; ++i)
        text += part;
    return text;
}

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
    EXPECT_EQ("{\"a\":1}", message.toText());
    message.reset();
    message.root().AddMember("n", 5U, message.allocator());
    EXPECT_EQ(R"({"n":5})", message.toText());

    ASSERT_TRUE(message.parse("{\"a\":\"" + std::string(200000, 'x') + "\"}"));
    ASSERT_FALSE(message.parse("{"));
    EXPECT_TRUE(message.root().IsNull());
    ASSERT_TRUE(message.parse("{\"b\":1}"));
    EXPECT_EQ(rapidjson::kParseErrorNone, message.errorCode());
    EXPECT_EQ(0U, message.errorOffset());
    EXPECT_EQ("{\"b\":1}", message.toText());
}

TEST(JsonMessage, ReportsCodeAndOffsetOfTheError) {
    struct {
        std::string text;
        int code;
        size_t offset;
    } const rows[] = {
        {"", 1, 0},
        {"  ", 1, 2},
        {"{", 4, 1},
        {"[", 3, 1},
        {"{}x", 2, 2},
        {R"({"a":1,})", 4, 7},
        {R"({"a"})", 5, 4},
        {R"({"a":1 "b":2})", 6, 7},
        {"[1 2]", 7, 3},
        {R"("\ud800")", 9, 1},
        {R"("abc)", 11, 4},
        {"1e400", 13, 0},
        {"1.", 14, 2},
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
        EXPECT_EQ("", text);
        EXPECT_EQ("", message.toText());
        message.root()["b"].SetInt(2);
        EXPECT_TRUE(message.serialise(text));
        EXPECT_EQ(R"({"a":1,"b":2})", text);
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
    JsonMessage message;
    for (size_t levels : {255, 256, 257, 258}) {
        EXPECT_TRUE(message.parse(nestedArrays(levels)));
        EXPECT_EQ(nestedArrays(levels), message.toText()) << "the last shallow level is no seam";
    }
}

// Behind deep nesting a text is parsed in another way, which must not show.
TEST(JsonMessage, DepthBeforeATextChangesNoResult) {
    const std::string seed = R"([[1,-2.5e3,{"b":"x\n\u20ac"}],{"c":null,"d":[true,false,[]],"e":{}} ])";
    const std::string alphabet = "{}[],:\"\\ 019.-+eatnu\n";
    const std::string shallow = "[" + nestedArrays(10) + std::string(580, ' ') + ",";
    const std::string deep = "[" + nestedArrays(300) + ",";
    ASSERT_EQ(shallow.size(), deep.size());
    std::mt19937 random(1);
    for (int round = 0; round < 20000; ++round) {
        std::string text = seed;
        for (int edits = 1 + static_cast<int>(random() % 3); edits > 0; --edits)
            text[random() % text.size()] = alphabet[random() % alphabet.size()];
        JsonMessage expected;
        JsonMessage message;
        ASSERT_EQ(expected.parse(shallow + text + "]"), message.parse(deep + text + "]")) << text;
        ASSERT_EQ(expected.errorCode(), message.errorCode()) << text;
        ASSERT_EQ(expected.errorOffset(), message.errorOffset()) << text;
        if (expected.errorCode() != rapidjson::kParseErrorNone) continue;
        expected.root()[0].SetNull();
        message.root()[0].SetNull();
        ASSERT_EQ(expected.toText(), message.toText()) << text;
    }
}

TEST(JsonMessage, SmallMessagesLeaveTheHeapAlone) {
    if (!AllocationCounter::available()) GTEST_SKIP() << "the sanitizer owns the heap";
    const std::string text =
        R"({"event":{"type":"cameraOpen","id":"0","isDesktop":true,"packageName":"com.example.desktop\n"}})";
    std::string out;
    out.reserve(256);
    AllocationCounter counter;
    JsonMessage message;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(message.parse(text));
        bool isDesktop = false;
        ASSERT_EQ(0, android::JsonUtils::parseValue(message.root()["event"], "isDesktop", isDesktop, -1));
        ASSERT_TRUE(message.serialise(out));
        message.reset();
        message.root().AddMember("general", 1, message.allocator());
        ASSERT_TRUE(message.serialise(out));
        ASSERT_FALSE(message.parse("{\"a\":"));
    }
    EXPECT_EQ(0U, counter.count());
}

TEST(JsonMessage, LargerMessagesGrowByOneChunk) {
    if (!AllocationCounter::available()) GTEST_SKIP() << "the sanitizer owns the heap";
    const std::string text = "[" + repeated("[[],{},[],{}],", 100) + "0]";
    JsonMessage message;
    AllocationCounter counter;
    ASSERT_TRUE(message.parse(text));
    EXPECT_EQ(0U, counter.count()) << "many values side by side are not deep";
    for (rapidjson::SizeType bytes : {20000, 20000, 20000})
        message.allocator().Malloc(bytes);
    EXPECT_EQ(1U, counter.count());
}

TEST(AllocationCounter, CountsEveryWayToTheHeap) {
    if (!AllocationCounter::available()) GTEST_SKIP() << "the sanitizer owns the heap";
    AllocationCounter counter;
    void* volatile block = malloc(8);
    block = realloc(block, 16);
    free(block);
    block = calloc(2, 8);
    free(block);
    block = aligned_alloc(64, 64);
    free(block);
    block = ::operator new(8);
    ::operator delete(block);
    EXPECT_EQ(5U, counter.count());
}

}  // namespace
