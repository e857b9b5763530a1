#include "JsonMessage.h"

#include "JsonWriter.h"

namespace {

using rapidjson::ParseResult;
using rapidjson::SizeType;
using Pool = JsonPool::Allocator;

constexpr size_t kParseStackBytes = 1024;

// The default parser recurses once per level; so many levels fit any thread's stack.
constexpr int kMaxRecursion = 256;

// Builds the value from the parser's events, and stops the parser at the level it may not recurse into.
// Its stacks come from a pool; the default would fetch each of them from the heap.
class ShallowDocument : public rapidjson::GenericDocument<rapidjson::UTF8<>, Pool, Pool> {
  public:
    using GenericDocument::GenericDocument;

    bool StartObject() { return ++mLevel <= kMaxRecursion && GenericDocument::StartObject(); }
    bool EndObject(SizeType members) { return --mLevel, GenericDocument::EndObject(members); }
    bool StartArray() { return ++mLevel <= kMaxRecursion && GenericDocument::StartArray(); }
    bool EndArray(SizeType elements) { return --mLevel, GenericDocument::EndArray(elements); }

  private:
    int mLevel = 0;
};

// kParseErrorTermination when the text nests too deeply.
ParseResult parseShallow(const char* text, Pool& pool, rapidjson::Value& root) {
    JsonPool stacks;
    ShallowDocument document(&pool, kParseStackBytes, &stacks.allocator());
    rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, Pool> reader(&stacks.allocator());
    rapidjson::StringStream stream(text);
    ParseResult result;
    const auto generate = [&](auto&) {
        result = reader.Parse(stream, document);
        return !result.IsError();
    };
    document.Populate(generate);
    root.Swap(document);
    return result;
}

// The same values and the same errors, with a stack on the heap.
ParseResult parseDeep(const char* text, Pool& pool, rapidjson::Value& root) {
    rapidjson::Document document(&pool);
    document.Parse<rapidjson::kParseIterativeFlag>(text);
    root.Swap(document);
    return ParseResult(document.GetParseError(), document.GetErrorOffset());
}

}  // namespace

bool JsonMessage::parse(const std::string& text) {
    reset();
    ParseResult result = parseShallow(text.c_str(), mPool.allocator(), mRoot);
    if (result.Code() == rapidjson::kParseErrorTermination) {
        reset();
        result = parseDeep(text.c_str(), mPool.allocator(), mRoot);
    }
    mErrorCode = result.Code();
    mErrorOffset = result.Offset();
    return !result.IsError();
}

void JsonMessage::reset() {
    mRoot.SetObject();
    mPool.allocator().Clear();
    mErrorCode = rapidjson::kParseErrorNone;
    mErrorOffset = 0;
}

bool JsonMessage::serialise(std::string& out) const {
    if (android::writeJson(mRoot, out)) return true;
    out.clear();
    return false;
}

std::string JsonMessage::toText() const {
    std::string text;
    (void)serialise(text);
    return text;
}
