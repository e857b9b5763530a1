#include "JsonObject.h"

#include <cmath>
#include <cstdio>

namespace vel::sim {

namespace {

bool isContinuation(unsigned char byte) {
    return (byte & 0xc0) == 0x80;
}

// The bytes of the UTF-8 character at the place; 0 when there is none.
size_t characterLength(const std::string& text, size_t at) {
    const auto byte = [&](size_t index) -> unsigned {
        return at + index < text.size() ? static_cast<unsigned char>(text[at + index]) : 0;
    };
    const unsigned first = byte(0);
    const size_t length = first < 0x80 ? 1 : first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if (first > 0xf4) return 0;
    for (size_t index = 1; index < length; ++index) {
        if (!isContinuation(static_cast<unsigned char>(byte(index)))) return 0;
    }
    const bool isOverlong = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xf0 && byte(1) < 0x90);
    const bool isSurrogate = first == 0xed && byte(1) >= 0xa0;
    const bool isBeyond = first == 0xf4 && byte(1) >= 0x90;
    return isOverlong || isSurrogate || isBeyond ? 0 : length;
}

void appendEscaped(std::string& out, char character) {
    const auto byte = static_cast<unsigned char>(character);
    if (character == '"' || character == '\\') {
        out += '\\';
        out += character;
    } else if (character == '\n') {
        out += "\\n";
    } else if (byte < 0x20 || byte == 0x7f) {
        char escape[8];
        std::snprintf(escape, sizeof(escape), "\\u%04x", byte);
        out += escape;
    } else {
        out += character;
    }
}

}  // namespace

std::string jsonQuoted(const std::string& text) {
    std::string out = "\"";
    out.reserve(text.size() + 2);
    for (size_t at = 0; at < text.size();) {
        const size_t length = characterLength(text, at);
        if (length == 0) out += "\\ufffd";
        if (length == 1) appendEscaped(out, text[at]);
        if (length > 1) out.append(text, at, length);
        at += length == 0 ? 1 : length;
    }
    return out += '"';
}

JsonObject& JsonObject::add(const char* name, const std::string& text) {
    if (text.size() <= kMaxText) return addJson(name, jsonQuoted(text));
    size_t end = kMaxText;
    while (end > 0 && isContinuation(static_cast<unsigned char>(text[end])))
        --end;
    return addJson(name,
                   jsonQuoted(text.substr(0, end) + " ... (" + std::to_string(text.size()) + " bytes)"));
}

JsonObject& JsonObject::add(const char* name, double value) {
    if (!std::isfinite(value)) return addJson(name, "null");
    char number[352];
    std::snprintf(number, sizeof(number), "%.3f", value);
    return addJson(name, number);
}

JsonObject& JsonObject::addJson(const char* name, const std::string& json) {
    if (!mMembers.empty()) mMembers += ',';
    mMembers.append("\"").append(name).append("\":").append(json);
    return *this;
}

}  // namespace vel::sim
