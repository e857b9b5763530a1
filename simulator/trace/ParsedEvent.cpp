#include "ParsedEvent.h"

#include <cmath>

#include "JsonMessage.h"

namespace vel::sim {

namespace {

constexpr double kMaxMicroseconds = 9e12;  // a hundred days: nanoseconds of it are exact in a double

const rapidjson::Value* member(const rapidjson::Value& object, const char* name) {
    const auto found = object.FindMember(name);
    return found == object.MemberEnd() ? nullptr : &found->value;
}

bool readText(const rapidjson::Value* value, std::string& text) {
    if (value == nullptr || !value->IsString()) return false;
    text.assign(value->GetString(), value->GetStringLength());
    return true;
}

bool readTime(const rapidjson::Value* value, int64_t& ns) {
    if (value == nullptr || !value->IsNumber() || std::fabs(value->GetDouble()) > kMaxMicroseconds)
        return false;
    ns = std::llround(value->GetDouble() * 1000);
    return true;
}

bool readNumber(const rapidjson::Value* value, int& number) {
    if (value == nullptr || !value->IsInt()) return false;
    number = value->GetInt();
    return true;
}

std::string toText(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    return value.Accept(writer) ? buffer.GetString() : "{}";
}

}  // namespace

bool ParsedEvent::parse(const std::string& line) {
    android::JsonMessage message;
    if (!message.parse(line) || !message.root().IsObject()) return false;
    const rapidjson::Value& event = message.root();
    std::string phaseText;
    if (!readText(member(event, "ph"), phaseText) || phaseText.size() != 1) return false;
    phase = phaseText[0];
    const bool isSlice = phase == 'X';
    if (!readText(member(event, "cat"), category) || !readText(member(event, "name"), name) ||
        !readTime(member(event, "ts"), timeNs) || !readNumber(member(event, "pid"), peer) ||
        !readNumber(member(event, "tid"), track) ||
        (isSlice && !readTime(member(event, "dur"), durationNs))) {
        return false;
    }
    const auto* const idValue = member(event, "id");
    if (idValue != nullptr && !readText(idValue, id)) id = toText(*idValue);
    const auto* const argsValue = member(event, "args");
    if (argsValue != nullptr && argsValue->IsObject()) args = toText(*argsValue);
    return true;
}

}  // namespace vel::sim
