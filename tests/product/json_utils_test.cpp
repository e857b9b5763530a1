#include "JsonUtils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <limits>

#include "DeepText.h"
#include "LogCapture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace android {
namespace {

using FloatPairs = std::vector<std::pair<float, float>>;
using IntPairs = std::vector<std::pair<float, int>>;
using Map = std::unordered_map<long long, double>;
using Objects = std::vector<const rapidjson::Value*>;

rapidjson::Document parsed(const std::string& text) {
    rapidjson::Document document;
    document.Parse(text.c_str());
    EXPECT_FALSE(document.HasParseError()) << text;
    return document;
}

// What a result holds before it is read.
template <typename T>
T stale() {
    if constexpr (std::is_arithmetic_v<T>)
        return T(7);
    else if constexpr (std::is_constructible_v<T, const char*>)
        return "old";
    else if constexpr (std::is_same_v<T, Objects>)
        return {nullptr};
    else
        return {{8, 9}};
}

template <typename T>
std::string shown(const T& value) {
    if constexpr (std::is_arithmetic_v<T>)
        return testing::PrintToString(+value);
    else if constexpr (std::is_constructible_v<std::string, T>)
        return value;
    else
        return testing::PrintToString(value);
}

// What a read of member "a" leaves behind: its code, its result and its log lines.
template <typename T>
std::string read(const std::string& json, int index) {
    const rapidjson::Document document = parsed(json);
    T out = stale<T>();
    LogCapture log;
    std::string result = std::to_string(JsonUtils::parseValue(document, "a", out, index));
    result += " " + shown(out);
    for (const std::string& line : log.texts("JsonUtils"))
        result += "; " + line;
    return result;
}

struct Row {
    std::string (*read)(const std::string& json, int index);
    const char* value;  // of member "a"; null when there is none
    std::string result;
    int index = -1;
};

void check(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        const std::string json =
            row.value != nullptr ? "{\"a\":" + std::string(row.value) + "}" : "{\"b\":1}";
        EXPECT_EQ(row.result, row.read(json, row.index)) << json;
    }
}

TEST(JsonUtilsRead, ScalarsAcceptTheirOwnKindAndRangeAndResetOnFailure) {
    const std::string noBool = "-22 0; E parseValue: 'a' parameter is not of type bool";
    const std::string noInt = "-22 0; E parseValue: 'a' parameter is not of type int";
    const std::string noInt64 = "-22 0; E parseValue: 'a' parameter is not of type int64";
    const std::string noReal = "-22 0; E parseValue: a=0.000000 (real Value)";
    check({
        {read<bool>, "true", "0 1"},
        {read<bool>, "1", noBool},
        {read<bool>, "null", noBool},
        {read<int>, "2147483647", "0 2147483647"},
        {read<int>, "2147483648", noInt},
        {read<int>, "-2147483649", noInt},
        {read<int>, "2.0", noInt},
        {read<int>, "\"1\"", noInt},
        {read<unsigned short>, "70000", "0 4464"},
        {read<unsigned short>, "2147483648", noInt},
        {read<unsigned char>, "-1", "0 255"},
        {read<long long>, "-9223372036854775808", "0 -9223372036854775808"},
        {read<long long>, "9223372036854775808", noInt64},
        {read<long long>, "2.0", noInt64},
        {read<float>, "-3", "0 -3"},
        {read<float>, "18446744073709551615", "0 1.84467e+19"},
        {read<float>, "3.4028235e38", "0 3.40282e+38"},
        {read<float>, "3.4028235677973366e38", "0 inf"},  // halfway to the next power of two
        {read<float>, "-1e300", "0 -inf"},
        {read<float>, "\"x\"", noReal},
        {read<double>, "1e300", "0 1e+300"},
        {read<double>, "false", noReal},
        {read<double>, nullptr, "-2 0"},
    });
}

TEST(JsonUtilsRead, StringsKeepTheOldValueOnFailure) {
    const std::string noString = "-22 old; E parseValue: 'a' parameter is not of type String";
    check({
        {read<std::string>, "\"x\\u0000y\"", "0 " + std::string("x\0y", 3)},
        {read<std::string>, "1", noString},
        {read<std::string>, nullptr, "-2 old"},
        {read<const char*>, "\"x\"", "0 x"},
        {read<const char*>, "null", noString},
        {read<const char*>, nullptr, "-2 old"},
    });
}

TEST(JsonUtilsRead, IndexSelectsAnElementBeforeTheTypeTest) {
    check({
        {read<int>, "[1,2]", "0 2", 1},
        {read<int>, "[1,\"x\"]", "-22 0; E parseValue: 'a' parameter is not of type int", 1},
        {read<int>, "[1,2]", "-75 0; E getValue: 'a' array insufficient size=2, index=2", 2},
        {read<int>, "[]", "-75 0; E getValue: 'a' array insufficient size=0, index=2147483647", INT_MAX},
        {read<int>, "1", "-2 0; D getValue: 'a' parameter not found, or is not an array", 0},
        {read<int>, nullptr, "-2 0", 3},
        {read<FloatPairs>, "[0,[[1,2]]]", "0 { (1, 2) }", 1},
    });
}

TEST(JsonUtilsRead, PairsSkipWhatIsNoPairAndRefuseWhatIsNoNumber) {
    const std::string noPair = "; E parseValue: 'a' parameter is not a two elements array";
    const std::string noNumber = "; E parseValue: incorrect value type for element ";
    for (const auto reader : {read<FloatPairs>, read<IntPairs>}) {
        check({
            {reader, "[[1,2],3,[4,5,6],[7.5,8]]", "0 { (1, 2), (7.5, 8) }" + noPair + noPair},
            {reader, "[[1,2],[\"x\",true]]", "-22 { (1, 2) }" + noNumber + "0 of 'a'"},
            {reader, "[[1,null]]", "-22 {}" + noNumber + "1 of 'a'"},
            {reader, "5", "0 {}"},
            {reader, "[]", "0 {}"},
        });
    }
}

TEST(JsonUtilsRead, MapKeepsWhatItHoldsAndRefusesEveryOtherShape) {
    const std::string noPair = "-22 { (8, 9) }; E parseValue: entry is not key/value pair: a";
    const std::string noNumber = "-22 { (8, 9) }; E parseValue: incorrect value type for entry 'a'";
    check({
        {read<Map>, "[[8,0.5]]", "0 { (8, 9) }"},
        {read<Map>, "5", "-22 { (8, 9) }; E parseValue: expected array type for a"},
        {read<Map>, "[3]", noPair},
        {read<Map>, "[[1,2,3]]", noPair},
        {read<Map>, "[[\"1\",2]]", noNumber},
        {read<Map>, "[[1,null]]", noNumber},
    });
    const rapidjson::Document document = parsed("{\"a\":[[1,0.5],[1,0.7],[-9223372036854775808,4],3]}");
    Map map;
    EXPECT_EQ(JsonUtils::parseValue(document, "a", map, -1), -22);
    EXPECT_EQ((Map{{1, 0.5}, {LLONG_MIN, 4.0}}), map) << "up to the bad entry, the first of a key";
}

TEST(JsonUtilsRead, ObjectsAndStringsAreTheDocumentsOwn) {
    const rapidjson::Document document = parsed("{\"a\":[{},{\"b\":1},2,{}],\"n\":\"x\",\"o\":{}}");
    LogCapture log;
    Objects out{nullptr};
    EXPECT_EQ(JsonUtils::parseValue(document, "a", out, -1), -22);
    EXPECT_THAT(out, ElementsAre(&document["a"][0], &document["a"][1]));
    EXPECT_EQ(JsonUtils::parseValue(document, "n", out, -1), 0);
    EXPECT_THAT(out, IsEmpty());
    const rapidjson::Value* object = &document;
    EXPECT_EQ(JsonUtils::parseValue(document, "n", &object, -1), -22);
    EXPECT_EQ(JsonUtils::parseValue(document, "none", &object, -1), -2);
    EXPECT_EQ(&document, object) << "never reset";
    EXPECT_EQ(JsonUtils::parseValue(document, "o", &object, -1), 0);
    EXPECT_EQ(&document["o"], object);
    const char* text = nullptr;
    EXPECT_EQ(JsonUtils::parseValue(document, "n", text, -1), 0);
    EXPECT_EQ(document["n"].GetString(), text);
    EXPECT_THAT(log.texts(), ElementsAre("E parseValue: incorrect value type for element 2 of 'a'",
                                         "E parseValue: 'n' parameter is not an array",
                                         "E parseValue: 'n' parameter is not of type obj"));
}

TEST(JsonUtilsLookup, NamesMatchExactlyAndTheFirstMemberWins) {
    const rapidjson::Document document = parsed("{\"ab\":0,\"a\\u0000\":0,\"A\":0,\"a\":1,\"a\":null}");
    int err = 1;
    EXPECT_EQ(JsonUtils::getValue(err, document, "a", -1).GetInt(), 1);
    EXPECT_EQ(err, 0);
    EXPECT_TRUE(JsonUtils::checkExists(document, "a"));
    EXPECT_TRUE(JsonUtils::checkExists(document, std::string("a\0b", 3))) << "up to the first NUL";
    EXPECT_FALSE(JsonUtils::checkExists(document, std::string("b")));
    EXPECT_FALSE(JsonUtils::checkExists(rapidjson::Value(), "a")) << "a null value has no members";
}

TEST(JsonUtilsCollections, PlainArraysAreWrittenUpToTheFirstBadElement) {
    const rapidjson::Document document = parsed("{\"i\":[1,-2,3.0,4],\"f\":[1,2.5,1e300,\"x\"],\"n\":5}");
    LogCapture log;
    int ints[] = {9, 9, 9, 9};
    EXPECT_EQ(JsonUtils::parseIntArr(document, "i", ints, -1), -22);
    EXPECT_THAT(ints, ElementsAre(1, -2, 9, 9));
    float floats[] = {9, 9, 9, 9};
    EXPECT_EQ(JsonUtils::parseFloatArr(document, "f", floats, -1), -22);
    EXPECT_THAT(floats, ElementsAre(1.0F, 2.5F, std::numeric_limits<float>::infinity(), 9.0F));
    EXPECT_THAT(log.texts(), ElementsAre("E parseIntArr:   incorrect value type",
                                         "E parseFloatArr:   incorrect value type"));

    log.clear();
    EXPECT_EQ(JsonUtils::parseIntArr(document, "n", ints, -1), 0);
    EXPECT_EQ(JsonUtils::parseFloatArr(document, "none", floats, -1), -2);
    EXPECT_EQ(JsonUtils::parseIntArr(document["i"], "i", ints, -1), -22);
    EXPECT_EQ(ints[0], 1);
    EXPECT_THAT(log.texts(), ElementsAre("E getValue: Error: JSON root is not an object, name: i"));
}

TEST(JsonUtilsMerge, MergesObjectsAndReplacesTheRest) {
    const struct {
        const char *overrides, *base, *merged;
    } rows[] = {
        {R"({"x":{"y":1},"z":[1]})", R"({"x":{"w":2},"z":[9,9]})", R"({"x":{"w":2,"y":1},"z":[1]})"},
        {R"({"a":{"b":{"c":1}},"d":1})", R"({"a":{"b":{"e":2}}})", R"({"a":{"b":{"e":2,"c":1}},"d":1})"},
        {R"({"a":5})", R"({"a":{"b":1}})", R"({"a":5})"},
        {R"({"a":{"b":1}})", R"({"a":5})", R"({"a":{"b":1}})"},
        {R"({"a":1,"a":2})", R"({})", R"({"a":2})"},
        {R"({"a":1})", R"({"a":2,"a":3})", R"({"a":1,"a":3})"},
        {R"({"a\u0000b":1})", R"({"a":2})", R"({"a":2,"a\u0000b":1})"},
        {R"([1])", R"({"a":1})", R"({"a":1})"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.overrides);
        rapidjson::Document document = parsed(row.base);
        rapidjson::Document overrides(&document.GetAllocator());
        overrides.Parse(row.overrides);
        EXPECT_EQ(&document, &JsonUtils::overrideJson(overrides, document, document.GetAllocator()));
        EXPECT_EQ(row.merged, JsonUtils::toString(document));
    }
}

TEST(JsonUtilsMerge, MovesOutOfTheOverridesUnlessOnlyTheBaseIsNoObject) {
    rapidjson::Document base = parsed("[1]");
    rapidjson::Document overrides(&base.GetAllocator());
    overrides.Parse("[2]");
    EXPECT_EQ(&base, &JsonUtils::overrideJson(overrides, base, base.GetAllocator()));
    overrides.Parse("{\"a\":[1]}");
    EXPECT_EQ(&overrides, &JsonUtils::overrideJson(overrides, base, base.GetAllocator()));
    EXPECT_EQ(JsonUtils::toString(base), "[1]");
    base.SetObject();
    JsonUtils::overrideJson(overrides, base, base.GetAllocator());
    EXPECT_TRUE(overrides.MemberBegin()->name.IsNull());
    EXPECT_TRUE(overrides.MemberBegin()->value.IsNull());
}

TEST(JsonUtilsMerge, DeepObjectsDoNotUseTheThreadsStack) {
    constexpr int kLevels = 200000;
    const std::string opening = repeated("{\"a\":", kLevels), closing = repeated("}", kLevels);
    rapidjson::Document base;
    rapidjson::Document overrides(&base.GetAllocator());
    base.Parse<rapidjson::kParseIterativeFlag>((opening + "{\"b\":1}" + closing).c_str());
    overrides.Parse<rapidjson::kParseIterativeFlag>((opening + "{\"c\":1}" + closing).c_str());
    JsonUtils::overrideJson(overrides, base, base.GetAllocator());
    const rapidjson::Value* leaf = &base;
    for (int i = 0; i < kLevels; ++i)
        leaf = &leaf->MemberBegin()->value;
    EXPECT_EQ(JsonUtils::toString(*leaf), R"({"b":1,"c":1})");
}

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
    EXPECT_DEATH(rapidJsonAssertFailed("x > 1", "file.h", 12),
                 "JsonUtils F .*file.h:12: JSON precondition broken: x > 1");
}

}  // namespace
}  // namespace android
