#include "JsonUtils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <limits>

#include "LogCapture.h"

using ::testing::ElementsAre;
using ::testing::Eq;
using ::testing::IsEmpty;
using ::testing::Pair;

namespace android {
namespace {

rapidjson::Document parsed(const std::string& text) {
    rapidjson::Document document;
    document.Parse(text.c_str());
    EXPECT_FALSE(document.HasParseError()) << text;
    return document;
}

// What a read leaves behind: its code, its result and its log lines.
template <typename T>
struct Reading {
    int code;
    T out;
    std::vector<std::string> log;
};

template <typename T>
Reading<T> readMember(const std::string& text, T before, const char* name = "a", int index = -1) {
    const rapidjson::Document document = parsed(text);
    LogCapture log;
    const int code = JsonUtils::parseValue(document, name, before, index);
    return {code, before, log.texts("JsonUtils")};
}

// -- Scalars: one row per rule, for each type
// ----------------------------------------------------------------

const std::string kNoLine;

template <typename T>
struct ScalarRow {
    const char* json;  // the value of member "a"
    int code;
    T out;
    std::string line;  // the only log line, empty when none
};

// Reads each row over a stale value, which a scalar reader may never leave behind.
template <typename T>
void checkScalars(T stale, const std::vector<ScalarRow<T>>& rows) {
    for (const auto& row : rows) {
        SCOPED_TRACE(row.json);
        const auto reading = readMember<T>("{\"a\":" + std::string(row.json) + "}", stale);
        EXPECT_EQ(row.code, reading.code);
        EXPECT_EQ(row.out, reading.out);
        if (row.line.empty())
            EXPECT_THAT(reading.log, IsEmpty());
        else
            EXPECT_THAT(reading.log, ElementsAre(row.line));
    }
}

TEST(JsonUtilsScalars, BoolAcceptsOnlyTrueAndFalse) {
    const std::string line = "E parseValue: 'a' parameter is not of type bool";
    checkScalars<bool>(true, {{"true", 0, true, kNoLine},
                              {"false", 0, false, kNoLine},
                              {"1", -22, false, line},
                              {"\"true\"", -22, false, line},
                              {"null", -22, false, line}});
}

TEST(JsonUtilsScalars, IntAcceptsSigned32BitIntegersOnly) {
    const std::string line = "E parseValue: 'a' parameter is not of type int";
    checkScalars<int>(7, {{"2147483647", 0, INT_MAX, kNoLine},
                          {"-2147483648", 0, INT_MIN, kNoLine},
                          {"2147483648", -22, 0, line},
                          {"-2147483649", -22, 0, line},
                          {"2.0", -22, 0, line},
                          {"1e2", -22, 0, line},
                          {"\"1\"", -22, 0, line},
                          {"true", -22, 0, line}});
}

TEST(JsonUtilsScalars, NarrowIntegersKeepTheLowBits) {
    const std::string line = "E parseValue: 'a' parameter is not of type int";
    checkScalars<unsigned short>(7, {{"65535", 0, 65535, kNoLine},
                                     {"70000", 0, 4464, kNoLine},
                                     {"-1", 0, 65535, kNoLine},
                                     {"2147483648", -22, 0, line},
                                     {"2.0", -22, 0, line}});
    checkScalars<unsigned char>(7, {{"255", 0, 255, kNoLine},
                                    {"256", 0, 0, kNoLine},
                                    {"-1", 0, 255, kNoLine},
                                    {"-2147483648", 0, 0, kNoLine},
                                    {"1.5", -22, 0, line}});
}

TEST(JsonUtilsScalars, LongLongAcceptsSigned64BitIntegersOnly) {
    const std::string line = "E parseValue: 'a' parameter is not of type int64";
    checkScalars<long long>(7, {{"9223372036854775807", 0, LLONG_MAX, kNoLine},
                                {"-9223372036854775808", 0, LLONG_MIN, kNoLine},
                                {"9223372036854775808", -22, 0, line},
                                {"2.0", -22, 0, line}});
}

TEST(JsonUtilsScalars, FloatAcceptsEveryNumberAndRoundsIt) {
    const float infinity = std::numeric_limits<float>::infinity();
    checkScalars<float>(7.5F, {{"2.0", 0, 2.0F, kNoLine},
                               {"-3", 0, -3.0F, kNoLine},
                               {"18446744073709551615", 0, 18446744073709551616.0F, kNoLine},
                               {"0.1", 0, 0.1F, kNoLine},
                               {"3.4028235e38", 0, FLT_MAX, kNoLine},
                               {"-3.4028235e38", 0, -FLT_MAX, kNoLine},
                               {"3.4028236e38", 0, infinity, kNoLine},
                               {"-1e300", 0, -infinity, kNoLine},
                               {"1e-300", 0, 0.0F, kNoLine},
                               {"\"x\"", -22, 0.0F, "E parseValue: a=0.000000 (real Value)"}});
}

TEST(JsonUtilsScalars, DoubleAcceptsEveryNumber) {
    checkScalars<double>(7.5, {{"0.1", 0, 0.1, kNoLine},
                               {"1e300", 0, 1e300, kNoLine},
                               {"-3", 0, -3.0, kNoLine},
                               {"false", -22, 0.0, "E parseValue: a=0.000000 (real Value)"}});
}

TEST(JsonUtilsScalars, MissingMemberIsSilentAndResets) {
    const auto number = readMember<double>("{\"b\":1}", 7.5);
    EXPECT_EQ(-2, number.code);
    EXPECT_EQ(0.0, number.out);
    EXPECT_THAT(number.log, IsEmpty());
    EXPECT_FALSE(readMember<bool>("{}", true).out);
}

// -- Strings and objects: never reset
// --------------------------------------------------------------------------

TEST(JsonUtilsStrings, CopyIsWholeAndPointerIsTheDocumentsOwn) {
    const rapidjson::Document document = parsed("{\"a\":\"x\\u0000y\"}");
    std::string copy = "old";
    const char* text = nullptr;
    EXPECT_EQ(0, JsonUtils::parseValue(document, "a", copy, -1));
    EXPECT_EQ(0, JsonUtils::parseValue(document, "a", text, -1));
    EXPECT_EQ(std::string("x\0y", 3), copy);
    EXPECT_EQ(document["a"].GetString(), text);
}

TEST(JsonUtilsStrings, FailureLeavesTheOldValue) {
    const char* stale = "old";
    for (const char* json : {"{\"a\":1}", "{\"a\":null}"}) {
        const auto copy = readMember<std::string>(json, "old");
        EXPECT_EQ(-22, copy.code);
        EXPECT_EQ("old", copy.out);
        EXPECT_THAT(copy.log, ElementsAre("E parseValue: 'a' parameter is not of type String"));
        const auto pointer = readMember<const char*>(json, stale);
        EXPECT_EQ(-22, pointer.code);
        EXPECT_EQ(stale, pointer.out);
        EXPECT_EQ(copy.log, pointer.log);
    }
    const auto missing = readMember<std::string>("{}", "old");
    EXPECT_EQ(-2, missing.code);
    EXPECT_EQ("old", missing.out);
    EXPECT_THAT(missing.log, IsEmpty());
}

TEST(JsonUtilsObjects, ObjectIsHandedOutByAddress) {
    const rapidjson::Document document = parsed("{\"a\":{\"b\":1},\"c\":[1]}");
    LogCapture log;
    const rapidjson::Value* out = &document;
    EXPECT_EQ(-22, JsonUtils::parseValue(document, "c", &out, -1));
    EXPECT_EQ(-2, JsonUtils::parseValue(document, "none", &out, -1));
    EXPECT_EQ(&document, out);
    EXPECT_THAT(log.texts(), ElementsAre("E parseValue: 'c' parameter is not of type obj"));
    EXPECT_EQ(0, JsonUtils::parseValue(document, "a", &out, -1));
    EXPECT_EQ(&document["a"], out);
}

// -- Lookup
// -----------------------------------------------------------------------------------------------------

TEST(JsonUtilsLookup, IndexSelectsAnElementBeforeTheTypeTest) {
    EXPECT_EQ(2, readMember<int>("{\"a\":[1,2]}", 0, "a", 1).out);
    const auto wrong = readMember<int>("{\"a\":[1,\"x\"]}", 7, "a", 1);
    EXPECT_EQ(-22, wrong.code);
    EXPECT_THAT(wrong.log, ElementsAre("E parseValue: 'a' parameter is not of type int"));
    const auto inner = readMember<std::vector<std::pair<float, float>>>("{\"a\":[0,[[1,2]]]}", {}, "a", 1);
    EXPECT_THAT(inner.out, ElementsAre(Pair(1.0F, 2.0F)));
}

TEST(JsonUtilsLookup, IndexFailuresHaveCodesAndLinesOfTheirOwn) {
    const auto notArray = readMember<int>("{\"a\":1}", 7, "a", 0);
    EXPECT_EQ(-2, notArray.code);
    EXPECT_EQ(0, notArray.out);
    EXPECT_THAT(notArray.log, ElementsAre("D getValue: 'a' parameter not found, or is not an array"));
    const auto beyond = readMember<int>("{\"a\":[1,2]}", 7, "a", 2);
    EXPECT_EQ(-75, beyond.code);
    EXPECT_THAT(beyond.log, ElementsAre("E getValue: 'a' array insufficient size=2, index=2"));
    EXPECT_EQ(-75, readMember<int>("{\"a\":[]}", 7, "a", INT_MAX).code);
    const auto missing = readMember<int>("{}", 7, "a", 3);
    EXPECT_EQ(-2, missing.code);
    EXPECT_THAT(missing.log, IsEmpty());
}

template <typename T>
void expectRootRefused(const std::string& json) {
    SCOPED_TRACE(json);
    const auto reading = readMember<T>(json, T());
    EXPECT_EQ(-22, reading.code);
    EXPECT_THAT(reading.log, ElementsAre("E getValue: Error: JSON root is not an object, name: a"));
}

TEST(JsonUtilsLookup, EveryReaderRefusesARootThatIsNoObject) {
    for (const char* json : {"[]", "[1]", "null", "5", "\"a\""}) {
        expectRootRefused<bool>(json);
        expectRootRefused<int>(json);
        expectRootRefused<unsigned short>(json);
        expectRootRefused<unsigned char>(json);
        expectRootRefused<long long>(json);
        expectRootRefused<float>(json);
        expectRootRefused<double>(json);
        expectRootRefused<std::string>(json);
        expectRootRefused<const char*>(json);
        expectRootRefused<std::vector<const rapidjson::Value*>>(json);
        expectRootRefused<std::vector<std::pair<float, float>>>(json);
        expectRootRefused<std::vector<std::pair<float, int>>>(json);
        expectRootRefused<std::unordered_map<long long, double>>(json);
    }
}

TEST(JsonUtilsLookup, NamesMatchExactlyAndTheFirstMemberWins) {
    const rapidjson::Document document = parsed("{\"ab\":0,\"a\\u0000\":0,\"A\":0,\"a\":1,\"a\":2}");
    int err = 1;
    EXPECT_EQ(1, JsonUtils::getValue(err, document, "a", -1).GetInt());
    EXPECT_EQ(0, err);
}

TEST(JsonUtilsLookup, ExistenceIsTestedByTheNameUpToItsFirstNul) {
    const rapidjson::Document document = parsed("{\"a\":null}");
    EXPECT_TRUE(JsonUtils::checkExists(document, "a"));
    EXPECT_TRUE(JsonUtils::checkExists(document, std::string("a\0b", 3)));
    EXPECT_FALSE(JsonUtils::checkExists(document, std::string("b")));
    EXPECT_FALSE(JsonUtils::checkExists(document["a"], "a")) << "a null value has no members";
}

// -- Collections
// ------------------------------------------------------------------------------------------------

TEST(JsonUtilsCollections, ObjectAddressesStopAtTheFirstOtherElement) {
    const rapidjson::Document document = parsed("{\"a\":[{},{\"b\":1},2,{}],\"n\":5}");
    LogCapture log;
    std::vector<const rapidjson::Value*> out{nullptr};
    EXPECT_EQ(-22, JsonUtils::parseValue(document, "a", out, -1));
    EXPECT_THAT(out, ElementsAre(&document["a"][0], &document["a"][1]));
    EXPECT_EQ(0, JsonUtils::parseValue(document, "n", out, -1));
    EXPECT_THAT(out, IsEmpty());
    EXPECT_THAT(log.texts(), ElementsAre("E parseValue: incorrect value type for element 2 of 'a'",
                                         "E parseValue: 'n' parameter is not an array"));
}

template <typename Pairs>
void checkPairRules() {
    const auto skipped = readMember<Pairs>("{\"a\":[[1,2],3,[4,5,6],[7,8]]}", {{9, 9}});
    EXPECT_EQ(0, skipped.code);
    EXPECT_THAT(skipped.out, ElementsAre(Pair(Eq(1), Eq(2)), Pair(Eq(7), Eq(8))));
    const std::string skippedLine = "E parseValue: 'a' parameter is not a two elements array";
    EXPECT_THAT(skipped.log, ElementsAre(skippedLine, skippedLine));

    const auto first = readMember<Pairs>("{\"a\":[[1,2],[\"x\",true]]}", {});
    EXPECT_EQ(-22, first.code);
    EXPECT_EQ(1U, first.out.size());
    EXPECT_THAT(first.log, ElementsAre("E parseValue: incorrect value type for element 0 of 'a'"));

    const auto second = readMember<Pairs>("{\"a\":[[1,null]]}", {});
    EXPECT_EQ(-22, second.code);
    EXPECT_THAT(second.log, ElementsAre("E parseValue: incorrect value type for element 1 of 'a'"));

    for (const char* json : {"{\"a\":5}", "{\"a\":[]}", "{\"a\":{}}"}) {
        const auto empty = readMember<Pairs>(json, {{9, 9}});
        EXPECT_EQ(0, empty.code) << json;
        EXPECT_THAT(empty.out, IsEmpty()) << json;
        EXPECT_THAT(empty.log, IsEmpty()) << json;
    }
}

TEST(JsonUtilsCollections, PairsSkipWhatIsNoPairAndRefuseWhatIsNoNumber) {
    checkPairRules<std::vector<std::pair<float, float>>>();
    checkPairRules<std::vector<std::pair<float, int>>>();
}

TEST(JsonUtilsCollections, MapKeepsTheFirstValueOfAKey) {
    using Map = std::unordered_map<long long, double>;
    const auto reading =
        readMember<Map>("{\"a\":[[1,0.5],[1,0.7],[2,3],[-9223372036854775808,4]]}", {{2, 9.0}});
    EXPECT_EQ(0, reading.code);
    EXPECT_EQ((Map{{1, 0.5}, {2, 9.0}, {LLONG_MIN, 4.0}}), reading.out);
    EXPECT_THAT(reading.log, IsEmpty());
}

TEST(JsonUtilsCollections, MapRefusesEveryOtherShape) {
    using Map = std::unordered_map<long long, double>;
    const std::pair<const char*, const char*> rows[] = {
        {"{\"a\":5}", "E parseValue: expected array type for a"},
        {"{\"a\":[[1,2],3]}", "E parseValue: entry is not key/value pair: a"},
        {"{\"a\":[[1,2],[1,2,3]]}", "E parseValue: entry is not key/value pair: a"},
        {"{\"a\":[[1,2],[\"1\",2]]}", "E parseValue: incorrect value type for entry 'a'"},
        {"{\"a\":[[1,2],[1,null]]}", "E parseValue: incorrect value type for entry 'a'"},
    };
    for (const auto& [json, line] : rows) {
        SCOPED_TRACE(json);
        const auto reading = readMember<Map>(json, {{8, 8.0}});
        EXPECT_EQ(-22, reading.code);
        EXPECT_EQ(1U, reading.out.count(8)) << "the map is never cleared";
        EXPECT_THAT(reading.log, ElementsAre(line));
    }
}

TEST(JsonUtilsCollections, PlainArraysAreWrittenUpToTheFirstBadElement) {
    const rapidjson::Document document = parsed("{\"i\":[1,-2,3.0,4],\"f\":[1,2.5,1e300,\"x\"],\"n\":5}");
    LogCapture log;
    int ints[] = {9, 9, 9, 9};
    EXPECT_EQ(-22, JsonUtils::parseIntArr(document, "i", ints, -1));
    EXPECT_THAT(ints, ElementsAre(1, -2, 9, 9));
    float floats[] = {9, 9, 9, 9};
    EXPECT_EQ(-22, JsonUtils::parseFloatArr(document, "f", floats, -1));
    EXPECT_THAT(floats, ElementsAre(1.0F, 2.5F, std::numeric_limits<float>::infinity(), 9.0F));
    EXPECT_THAT(log.texts(), ElementsAre("E parseIntArr:   incorrect value type",
                                         "E parseFloatArr:   incorrect value type"));

    log.clear();
    EXPECT_EQ(0, JsonUtils::parseIntArr(document, "n", ints, -1));
    EXPECT_EQ(-2, JsonUtils::parseFloatArr(document, "none", floats, -1));
    EXPECT_EQ(-22, JsonUtils::parseIntArr(document["i"], "i", ints, -1));
    EXPECT_EQ(1, ints[0]);
    EXPECT_THAT(log.texts(), ElementsAre("E getValue: Error: JSON root is not an object, name: i"));
}

// -- Text and merge
// ---------------------------------------------------------------------------------------------

TEST(JsonUtilsText, WritesEveryByteOfATextAsTheDefaultWriterDoes) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text = {'a', static_cast<char>(byte), 'b'};
        const rapidjson::Value value(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        rapidjson::StringBuffer expected;
        rapidjson::Writer<rapidjson::StringBuffer> writer(expected);
        ASSERT_TRUE(value.Accept(writer));
        EXPECT_EQ(JsonUtils::toString(value), expected.GetString()) << byte;
    }
}

TEST(JsonUtilsText, IsCompactAndOwned) {
    const std::string json = "{\"a\":[1,-2,0.5,true,null],\"b\":{\"c\":\"\\u0000\\\"\"},\"d\":{},\"e\":[]}";
    EXPECT_EQ(json, JsonUtils::toString(parsed(" " + json + " ")));
    const std::string wide = "[\"" + std::string(100000, 'x') + "\"]";
    EXPECT_EQ(wide, JsonUtils::toString(parsed(wide)));
}

struct MergeRow {
    const char* overrides;
    const char* base;
    const char* merged;
};

TEST(JsonUtilsMerge, MergesObjectsAndReplacesTheRest) {
    const MergeRow rows[] = {
        {R"({"x":{"y":1},"z":[1]})", R"({"x":{"w":2},"z":[9,9]})", R"({"x":{"w":2,"y":1},"z":[1]})"},
        {R"({"n":{"m":1},"a":2})", R"({"a":1})", R"({"a":2,"n":{"m":1}})"},
        {R"({"a":{"b":{"c":1}},"d":1})", R"({"a":{"b":{"e":2}}})", R"({"a":{"b":{"e":2,"c":1}},"d":1})"},
        {R"({"a":{}})", R"({"a":{"b":1}})", R"({"a":{"b":1}})"},
        {R"({"a":5})", R"({"a":{"b":1}})", R"({"a":5})"},
        {R"({"a":{"b":1}})", R"({"a":5})", R"({"a":{"b":1}})"},
        {R"({"a":null})", R"({"a":1})", R"({"a":null})"},
        {R"({"a":1,"a":2})", R"({})", R"({"a":2})"},
        {R"({"a":1})", R"({"a":2,"a":3})", R"({"a":1,"a":3})"},
        {R"({"a\u0000b":1})", R"({"a":2})", R"({"a":2,"a\u0000b":1})"},
        {R"({})", R"({"a":1})", R"({"a":1})"},
        {R"([1])", R"({"a":1})", R"({"a":1})"},
    };
    for (const MergeRow& row : rows) {
        SCOPED_TRACE(row.overrides);
        rapidjson::Document document = parsed(row.base);
        rapidjson::Document overrides(&document.GetAllocator());
        overrides.Parse(row.overrides);
        EXPECT_EQ(&document, &JsonUtils::overrideJson(overrides, document, document.GetAllocator()));
        EXPECT_EQ(row.merged, JsonUtils::toString(document));
    }
}

TEST(JsonUtilsMerge, ReturnsTheOverridesWhenOnlyTheBaseIsNoObject) {
    rapidjson::Document base = parsed("[1]");
    rapidjson::Document overrides = parsed("{}");
    EXPECT_EQ(&overrides, &JsonUtils::overrideJson(overrides, base, base.GetAllocator()));
    EXPECT_EQ("[1]", JsonUtils::toString(base));
}

TEST(JsonUtilsMerge, MovesNamesAndValuesOutOfTheOverrides) {
    rapidjson::Document base = parsed("{\"b\":1}");
    rapidjson::Document overrides(&base.GetAllocator());
    overrides.Parse("{\"a\":[1],\"b\":2}");
    JsonUtils::overrideJson(overrides, base, base.GetAllocator());
    const auto first = overrides.MemberBegin();
    EXPECT_TRUE(first[0].name.IsNull());
    EXPECT_TRUE(first[0].value.IsNull());
    EXPECT_TRUE(first[1].value.IsNull());
}

TEST(JsonUtilsMerge, DeepObjectsDoNotUseTheThreadsStack) {
    constexpr int kLevels = 200000;
    const auto nested = [](const std::string& leaf) {
        std::string text;
        for (int i = 0; i < kLevels; ++i)
            text += "{\"a\":";
        return text + leaf + std::string(kLevels, '}');
    };
    rapidjson::Document base;
    rapidjson::Document overrides(&base.GetAllocator());
    base.Parse<rapidjson::kParseIterativeFlag>(nested("{\"b\":1}").c_str());
    overrides.Parse<rapidjson::kParseIterativeFlag>(nested("{\"c\":1}").c_str());
    JsonUtils::overrideJson(overrides, base, base.GetAllocator());
    const rapidjson::Value* leaf = &base;
    for (int i = 0; i < kLevels; ++i)
        leaf = &leaf->MemberBegin()->value;
    EXPECT_EQ(R"({"b":1,"c":1})", JsonUtils::toString(*leaf));
}

// -- Preconditions
// ----------------------------------------------------------------------------------------------

TEST(JsonUtilsDeathTest, BrokenPreconditionsEndTheProcessInEveryBuild) {
    const rapidjson::Document document = parsed(
        R"({"pairs":[[1,2.5]],"wide":[[1,2147483648]],"map":[[1.5,2]],"far":[[9223372036854775808,2]],"n":1})");
    const char* kLine = "JSON precondition broken";
    std::vector<std::pair<float, int>> pairs;
    std::unordered_map<long long, double> map{{1, 1.0}};
    EXPECT_DEATH(JsonUtils::checkExists(document["n"], "a"), kLine);
    EXPECT_DEATH(JsonUtils::checkExists(document["pairs"], std::string("a")), kLine);
    EXPECT_DEATH(JsonUtils::parseValue(document, "pairs", pairs, -1), kLine);
    EXPECT_DEATH(JsonUtils::parseValue(document, "wide", pairs, -1), kLine);
    EXPECT_DEATH(JsonUtils::parseValue(document, "map", map, -1), kLine);
    EXPECT_DEATH(JsonUtils::parseValue(document, "far", map, -1), kLine);
}

TEST(JsonUtilsDeathTest, ABrokenPreconditionIsLoggedAsFatal) {
    EXPECT_DEATH(rapidJsonAssertFailed("x > 1", "file.h", 12),
                 "JsonUtils F .*file.h:12: JSON precondition broken: x > 1");
}

}  // namespace
}  // namespace android
