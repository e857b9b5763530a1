#pragma once

#include <cstddef>
#include <string>

#include "RapidJson.h"

// Stands before a JsonMessage on the stack, whose memory need not be cleared: Android's compiler flags would
// otherwise have it done at each call.
#define JSON_UNCLEARED __attribute__((uninitialized))

namespace android {

/**
 * One JSON message on its way in or out. Its values, and what parsing them needs, live in 6 KB inside the
 * object, meant for the stack, and on the heap only beyond that: a small message is parsed or built without
 * one allocation; writing it takes two, and one for the string.
 *
 * Values and texts taken from it live until the next parse(), reset() or its end. Used by one thread at a
 * time; takes no lock and does not block. Needs little more stack than its own size: parse() does not
 * recurse, however deep a text. Only serialise() and toText() do.
 */
class JsonMessage {
  public:
    using Allocator = rapidjson::Document::AllocatorType;

    /** Starts as an empty object. */
    JsonMessage() : mAllocator(mMemory, sizeof(mMemory), kHeapChunkBytes, &mHeap) {}
    JsonMessage(const JsonMessage&) = delete;
    JsonMessage& operator=(const JsonMessage&) = delete;

    /**
     * Replaces the message by the text's value. A NUL ends the text; a byte order mark is refused. On false,
     * errorCode() and errorOffset() tell why and the root is null.
     */
    bool parse(const std::string& text);
    /** Of the last parse(); kParseErrorNone and 0 when it succeeded or there was none since reset(). */
    rapidjson::ParseErrorCode errorCode() const { return mErrorCode; }
    /** In bytes from the start of the text. */
    size_t errorOffset() const { return mErrorOffset; }

    /** Makes it an empty object again and gives its memory back. */
    void reset();

    rapidjson::Value& root() { return mRoot; }
    const rapidjson::Value& root() const { return mRoot; }
    /** For everything that is added below root(). */
    Allocator& allocator() { return mAllocator; }

    /**
     * Replaces out by the compact text. False, with an empty out, when a number in the message is not finite.
     * Recurses once per level of nesting: for messages that we built, not for what a peer sent.
     */
    bool serialise(std::string& out) const;
    /** The compact text, empty where serialise() gives false. */
    std::string toText() const;

  private:
    static constexpr size_t kHeapChunkBytes = size_t{64} * 1024;  // RapidJSON's own choice

    alignas(std::max_align_t) char mMemory[6 * 1024];
    rapidjson::CrtAllocator mHeap;
    Allocator mAllocator;
    rapidjson::Value mRoot{rapidjson::kObjectType};
    rapidjson::ParseErrorCode mErrorCode = rapidjson::kParseErrorNone;
    size_t mErrorOffset = 0;
};

}  // namespace android
