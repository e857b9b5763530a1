// Any text that a peer may send: it is parsed as a plain document would, every reader is tried on it, and it
// is written back.

#include <algorithm>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "FuzzTarget.h"
#include "JsonMessage.h"
#include "JsonUtils.h"

using android::JsonMessage;

namespace {

using android::JsonUtils;
using rapidjson::Value;

// The walks below recurse; texts with more brackets are only parsed and read.
constexpr auto kMaxBrackets = 1000;

bool isShallow(const std::string& text) {
    return std::count_if(text.begin(), text.end(), [](char c) { return c == '{' || c == '['; }) <=
           kMaxBrackets;
}

template <typename T>
void readInto(const Value& root, const char* name, int index) {
    T out{};
    const int code = JsonUtils::parseValue(root, name, out, index);
    require(code == 0 || code == -22 || code == -2 || code == -75);
}

// Not the two readers that by contract end the process on a real number where they want an integer.
void readAll(const Value& root, const char* name, int index) {
    readInto<bool>(root, name, index);
    readInto<int>(root, name, index);
    readInto<unsigned short>(root, name, index);
    readInto<unsigned char>(root, name, index);
    readInto<long long>(root, name, index);
    readInto<float>(root, name, index);
    readInto<double>(root, name, index);
    readInto<std::string>(root, name, index);
    readInto<const char*>(root, name, index);
    readInto<std::vector<const Value*>>(root, name, index);
    readInto<std::vector<std::pair<float, float>>>(root, name, index);
    const Value* object = nullptr;
    require((JsonUtils::parseValue(root, name, &object, index) == 0) == (object != nullptr));

    int err = 0;
    const Value& value = JsonUtils::getValue(err, root, name, index);
    const size_t room = err == 0 && value.IsArray() ? value.Size() : 0;
    std::vector<int> ints(room);
    std::vector<float> floats(room);
    JsonUtils::parseIntArr(root, name, ints.data(), index);
    JsonUtils::parseFloatArr(root, name, floats.data(), index);
}

// A plain document must say the same of the text.
void checkAgainstDocument(const JsonMessage& message, const std::string& text) {
    rapidjson::Document document;
    document.Parse(text.c_str());
    require(document.GetParseError() == message.errorCode());
    require(document.GetErrorOffset() == message.errorOffset());
    require(document.HasParseError() || JsonUtils::toString(document) == JsonUtils::toString(message.root()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    JsonMessage message;
    const bool parsed = message.parse(text);
    require(parsed == (message.errorCode() == rapidjson::kParseErrorNone));
    require(message.errorOffset() <= size);
    const bool shallow = isShallow(text);
    if (shallow) checkAgainstDocument(message, text);
    if (!parsed) return 0;

    const Value& root = message.root();
    readAll(root, "a", -1);
    if (root.IsObject()) {
        int members = 16;  // each costs a lookup per reader
        for (auto member = root.MemberBegin(); member != root.MemberEnd() && members-- > 0; ++member) {
            readAll(root, member->name.GetString(), -1);
            readAll(root, member->name.GetString(), 0);
        }
    }
    if (shallow) (void)message.toText();
    return 0;
}
