#include "Replay.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "JsonMessage.h"
#include "ParsedEvent.h"

namespace vel::sim {

namespace {

constexpr int kFormat = 1;
constexpr int kMaxDepth = 64;
constexpr uintmax_t kMaxBytes = uintmax_t{256} << 20;

[[noreturn]] void fail(const std::string& file, const std::string& why) {
    throw std::runtime_error(file + " is no saved session: " + why);
}

std::string readText(const std::string& file) {
    std::error_code error;
    const uintmax_t size = std::filesystem::file_size(file, error);
    if (error) throw std::runtime_error("cannot read " + file + ": " + error.message());
    if (size > kMaxBytes) fail(file, "it is too large");
    std::ifstream stream(file, std::ios::binary);
    if (!stream) throw std::runtime_error("cannot read " + file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// Writing a value recurses once a level.
bool isDeep(const std::string& text) {
    int depth = 0;
    bool isInText = false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (isInText) {
            if (text[i] == '\\') ++i;
            isInText = i < text.size() && text[i] != '"';
            continue;
        }
        isInText = text[i] == '"';
        if (text[i] == '{' || text[i] == '[') ++depth;
        if (text[i] == '}' || text[i] == ']') --depth;
        if (depth > kMaxDepth) return true;
    }
    return false;
}

std::string toText(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    return value.Accept(writer) ? buffer.GetString() : "";
}

}  // namespace

Replay readReplay(const std::string& file) {
    const std::string text = readText(file);
    if (isDeep(text)) fail(file, "it is nested too deeply");
    android::JsonMessage message;
    const rapidjson::Value& root = message.root();
    if (!message.parse(text) || !root.IsObject()) fail(file, "it is no JSON object");
    const auto format = root.FindMember("format");
    if (format == root.MemberEnd() || !format->value.IsInt()) fail(file, "it has no format");
    if (format->value.GetInt() != kFormat) fail(file, "its format is not known");
    const auto figures = root.FindMember("figures");
    const auto events = root.FindMember("events");
    if (figures == root.MemberEnd() || !figures->value.IsObject()) fail(file, "it has no figures");
    if (events == root.MemberEnd() || !events->value.IsArray()) fail(file, "it has no events");

    Replay replay{toText(figures->value), {}};
    for (const rapidjson::Value& event : events->value.GetArray()) {
        replay.events.push_back(toText(event));
        if (!ParsedEvent().parse(replay.events.back())) fail(file, "one of its events is none");
    }
    return replay;
}

}  // namespace vel::sim
