#include "JsonUtils.h"

#include <errno.h>
#include <stdint.h>

#include <cstdlib>

#include "NarrowToFloat.h"
#include "VelLog.h"

namespace android {

namespace {

using rapidjson::SizeType;
using rapidjson::Value;

constexpr char kLogTag[] = "JsonUtils";
constexpr char kGetValue[] = "getValue";
constexpr char kParseValue[] = "parseValue";

// What a result code holds until getValue sets it.
constexpr int kUnset = INT32_MIN;

// The result code of reading that element, which is not negative, of the value.
int testElement(const Value& value, const char* name, int index) {
    if (!value.IsArray()) {
        VEL_LOGD("%s: '%s' parameter not found, or is not an array", kGetValue, name);
        return -ENOENT;
    }
    if (value.Size() <= static_cast<SizeType>(index)) {
        VEL_LOGE("%s: '%s' array insufficient size=%d, index=%d", kGetValue, name,
                 static_cast<int>(value.Size()), index);
        return -EOVERFLOW;
    }
    return 0;
}

// Finds the value, tests its type and stores it; logMismatch writes the line for a value of another type.
template <typename Accepts, typename Store, typename LogMismatch>
int read(const Value& root, const char* name, int index, Accepts accepts, Store store,
         LogMismatch logMismatch) {
    int err = kUnset;
    const Value& value = JsonUtils::getValue(err, root, name, index);
    if (err != 0) return err;
    if (!(value.*accepts)()) {
        logMismatch();
        return -EINVAL;
    }
    store(value);
    return 0;
}

template <typename Integer>
int readInt(const Value& root, const char* name, Integer& out, int index) {
    out = 0;
    return read(
        root, name, index, &Value::IsInt,
        [&](const Value& value) { out = static_cast<Integer>(value.GetInt()); },
        [&] { VEL_LOGE("%s: '%s' parameter is not of type int", kParseValue, name); });
}

template <typename Real>
int readReal(const Value& root, const char* name, Real& out, int index, Real (*convert)(double)) {
    out = 0.0;
    return read(
        root, name, index, &Value::IsNumber, [&](const Value& value) { out = convert(value.GetDouble()); },
        [&] { VEL_LOGE("%s: %s=%f (real Value)", kParseValue, name, static_cast<double>(out)); });
}

template <typename Store>
int readString(const Value& root, const char* name, int index, Store store) {
    return read(root, name, index, &Value::IsString, store,
                [&] { VEL_LOGE("%s: '%s' parameter is not of type String", kParseValue, name); });
}

// Finds the array and hands its elements to readElement(element, position) until one gives a code other than
// 0; a value that is not an array gives the code of notAnArray().
template <typename NotAnArray, typename ReadElement>
int readElements(const Value& root, const char* name, int index, NotAnArray notAnArray,
                 ReadElement readElement) {
    int err = kUnset;
    const Value& value = JsonUtils::getValue(err, root, name, index);
    if (err != 0) return err;
    if (!value.IsArray()) return notAnArray();
    for (SizeType i = 0; i < value.Size(); ++i) {
        const int code = readElement(value[i], i);
        if (code != 0) return code;
    }
    return 0;
}

int ignoreNonArray() {
    return 0;
}

bool isPair(const Value& value) {
    return value.IsArray() && value.Size() == 2;
}

float secondOf(const Value& pair, float) {
    return narrowToFloat(pair[1].GetDouble());
}

int secondOf(const Value& pair, int) {
    return pair[1].GetInt();
}

template <typename Second>
int readPairs(const Value& root, const char* name, std::vector<std::pair<float, Second>>& out, int index) {
    out.clear();
    return readElements(root, name, index, ignoreNonArray, [&](const Value& element, SizeType) {
        if (!isPair(element)) {
            VEL_LOGE("%s: '%s' parameter is not a two elements array", kParseValue, name);
            return 0;
        }
        if (!element[0].IsNumber()) {
            VEL_LOGE("%s: incorrect value type for element 0 of '%s'", kParseValue, name);
            return -EINVAL;
        }
        if (!element[1].IsNumber()) {
            VEL_LOGE("%s: incorrect value type for element 1 of '%s'", kParseValue, name);
            return -EINVAL;
        }
        out.emplace_back(narrowToFloat(element[0].GetDouble()), secondOf(element, Second()));
        return 0;
    });
}

// Stores element i through store(i, element) when it is of the accepted type.
template <typename Accepts, typename Store>
int readNumbers(const char* operation, const Value& root, const char* name, int index, Accepts accepts,
                Store store) {
    return readElements(root, name, index, ignoreNonArray, [&](const Value& element, SizeType i) {
        if (!(element.*accepts)()) {
            VEL_LOGE("%s:   incorrect value type", operation);
            return -EINVAL;
        }
        store(i, element);
        return 0;
    });
}

}  // namespace

void rapidJsonAssertFailed(const char* expression, const char* file, int line) {
    __android_log_print(ANDROID_LOG_FATAL, kLogTag, "%s:%d: JSON precondition broken: %s", file, line,
                        expression);
    std::abort();
}

bool JsonUtils::checkExists(const Value& obj, const char* name) {
    return !obj.IsNull() && obj.HasMember(name);
}

bool JsonUtils::checkExists(const Value& obj, const std::string& name) {
    return checkExists(obj, name.c_str());
}

const JsonUtils::Value& JsonUtils::getValue(int& err, const Value& root, const char* name, int index) {
    if (!root.IsObject()) {
        VEL_LOGE("%s: Error: JSON root is not an object, name: %s", kGetValue, name);
        err = -EINVAL;
        return root;
    }
    const auto member = root.FindMember(name);
    if (member == root.MemberEnd()) {
        err = -ENOENT;
        return root;
    }
    err = 0;
    if (index < 0) return member->value;
    err = testElement(member->value, name, index);
    return err == 0 ? member->value[static_cast<SizeType>(index)] : root;
}

int JsonUtils::parseValue(const Value& root, const char* name, bool& out, int index) {
    out = false;
    return read(
        root, name, index, &Value::IsBool, [&](const Value& value) { out = value.IsTrue(); },
        [&] { VEL_LOGE("%s: '%s' parameter is not of type bool", kParseValue, name); });
}

int JsonUtils::parseValue(const Value& root, const char* name, int& out, int index) {
    return readInt(root, name, out, index);
}

int JsonUtils::parseValue(const Value& root, const char* name, unsigned short& out, int index) {
    return readInt(root, name, out, index);
}

int JsonUtils::parseValue(const Value& root, const char* name, unsigned char& out, int index) {
    return readInt(root, name, out, index);
}

int JsonUtils::parseValue(const Value& root, const char* name, long long& out, int index) {
    out = 0;
    return read(
        root, name, index, &Value::IsInt64, [&](const Value& value) { out = value.GetInt64(); },
        [&] { VEL_LOGE("%s: '%s' parameter is not of type int64", kParseValue, name); });
}

int JsonUtils::parseValue(const Value& root, const char* name, float& out, int index) {
    return readReal(root, name, out, index, narrowToFloat);
}

int JsonUtils::parseValue(const Value& root, const char* name, double& out, int index) {
    return readReal<double>(root, name, out, index, [](double value) { return value; });
}

int JsonUtils::parseValue(const Value& root, const char* name, std::string& out, int index) {
    return readString(root, name, index,
                      [&](const Value& value) { out.assign(value.GetString(), value.GetStringLength()); });
}

int JsonUtils::parseValue(const Value& root, const char* name, const char*& out, int index) {
    return readString(root, name, index, [&](const Value& value) { out = value.GetString(); });
}

int JsonUtils::parseValue(const Value& root, const char* name, const Value** out, int index) {
    return read(
        root, name, index, &Value::IsObject, [&](const Value& value) { *out = &value; },
        [&] { VEL_LOGE("%s: '%s' parameter is not of type obj", kParseValue, name); });
}

int JsonUtils::parseValue(const Value& root, const char* name, std::vector<const Value*>& out, int index) {
    out.clear();
    const auto logNonArray = [&] {
        VEL_LOGE("%s: '%s' parameter is not an array", kParseValue, name);
        return 0;
    };
    return readElements(root, name, index, logNonArray, [&](const Value& element, SizeType i) {
        if (!element.IsObject()) {
            VEL_LOGE("%s: incorrect value type for element %d of '%s'", kParseValue, static_cast<int>(i),
                     name);
            return -EINVAL;
        }
        out.push_back(&element);
        return 0;
    });
}

int JsonUtils::parseValue(const Value& root, const char* name, std::vector<std::pair<float, float>>& out,
                          int index) {
    return readPairs(root, name, out, index);
}

int JsonUtils::parseValue(const Value& root, const char* name, std::vector<std::pair<float, int>>& out,
                          int index) {
    return readPairs(root, name, out, index);
}

int JsonUtils::parseValue(const Value& root, const char* name, std::unordered_map<long long, double>& out,
                          int index) {
    const auto refuseNonArray = [&] {
        VEL_LOGE("%s: expected array type for %s", kParseValue, name);
        return -EINVAL;
    };
    return readElements(root, name, index, refuseNonArray, [&](const Value& entry, SizeType) {
        if (!isPair(entry)) {
            VEL_LOGE("%s: entry is not key/value pair: %s", kParseValue, name);
            return -EINVAL;
        }
        if (!entry[0].IsNumber() || !entry[1].IsNumber()) {
            VEL_LOGE("%s: incorrect value type for entry '%s'", kParseValue, name);
            return -EINVAL;
        }
        out.emplace(entry[0].GetInt64(), entry[1].GetDouble());
        return 0;
    });
}

int JsonUtils::parseIntArr(const Value& root, const char* name, int* out, int index) {
    return readNumbers("parseIntArr", root, name, index, &Value::IsInt,
                       [&](SizeType i, const Value& element) { out[i] = element.GetInt(); });
}

int JsonUtils::parseFloatArr(const Value& root, const char* name, float* out, int index) {
    return readNumbers(
        "parseFloatArr", root, name, index, &Value::IsNumber,
        [&](SizeType i, const Value& element) { out[i] = narrowToFloat(element.GetDouble()); });
}

std::string JsonUtils::toString(const Value& v) {
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    v.Accept(writer);
    return std::string(text.GetString(), text.GetSize());
}

// Keeps its own stack of levels, so that deep values cannot exhaust the thread's.
JsonUtils::Value& JsonUtils::overrideJson(Value& overrides, Value& base,
                                          rapidjson::MemoryPoolAllocator<>& alloc) {
    if (!overrides.IsObject()) return base;
    if (!base.IsObject()) return overrides;

    struct Level {
        Value& from;
        Value& into;
        Value::MemberIterator next;
    };
    std::vector<Level> levels;
    levels.push_back({overrides, base, overrides.MemberBegin()});
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.from.MemberEnd()) {
            levels.pop_back();
            continue;
        }
        Value::Member& member = *level.next++;
        const auto found = level.into.FindMember(member.name);
        if (found == level.into.MemberEnd())
            level.into.AddMember(member.name, member.value, alloc);
        else if (found->value.IsObject() && member.value.IsObject())
            levels.push_back({member.value, found->value, member.value.MemberBegin()});
        else
            found->value = member.value;
    }
    return base;
}

}  // namespace android
