#pragma once

#include <cstddef>
#include <string>

#include "JsonPool.h"
#include "RapidJson.h"

// One JSON message on its way in or out. Its values live in about 24 KB inside the object, meant for the
// stack, and on the heap only beyond that: a small message is parsed or built without one allocation.
//
// Values and texts taken from it live until the next parse(), reset() or its end. Used by one thread at a
// time; takes no lock and does not block. Needs about 24 KB of stack for itself, and 25 to 50 KB more
// in parse(), however deep the text: beyond 256 levels nesting costs heap. Only serialise() and toText() go
// on recursing.
class JsonMessage {
  public:
    // Starts as an empty object.
    JsonMessage() = default;
    JsonMessage(const JsonMessage&) = delete;
    JsonMessage& operator=(const JsonMessage&) = delete;

    // Replaces the message by the text's value. A NUL ends the text; a byte order mark is refused. On false,
    // errorCode() and errorOffset() tell why and the root is null.
    bool parse(const std::string& text);
    // Of the last parse(); kParseErrorNone and 0 when it succeeded or there was none since reset().
    rapidjson::ParseErrorCode errorCode() const { return mErrorCode; }
    // In bytes from the start of the text.
    size_t errorOffset() const { return mErrorOffset; }

    // Makes it an empty object again and gives its memory back.
    void reset();

    rapidjson::Value& root() { return mRoot; }
    const rapidjson::Value& root() const { return mRoot; }
    // For everything that is added below root().
    rapidjson::Document::AllocatorType& allocator() { return mPool.allocator(); }

    // Replaces out by the compact text. False, with an empty out, when a number in the message is not finite.
    // Recurses once per level of nesting: for messages that we built, not for what a peer sent.
    bool serialise(std::string& out) const;
    // The compact text, empty where serialise() gives false.
    std::string toText() const;

  private:
    JsonPool mPool;
    rapidjson::Value mRoot{rapidjson::kObjectType};
    rapidjson::ParseErrorCode mErrorCode = rapidjson::kParseErrorNone;
    size_t mErrorOffset = 0;
};
