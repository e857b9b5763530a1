#include "JsonMessage.h"

#include <algorithm>

#include "JsonWriter.h"

namespace {

// Its parse stacks come from a pool as well; the default would fetch each of them from the heap.
using ParsedDocument =
    rapidjson::GenericDocument<rapidjson::UTF8<>, JsonPool::Allocator, JsonPool::Allocator>;

constexpr size_t kParseStackBytes = 1024;

// The default parser recurses at each level; so many levels fit any thread's stack.
constexpr auto kMaxRecursion = 256;

// Whether to parse with a stack on the heap. The result is the same for an object or an array; other texts do
// not recurse, and for some wrong ones the two parsers report different errors.
bool mayNestDeeply(const std::string& text) {
    const size_t start = text.find_first_not_of(" \t\r\n");
    if (start == std::string::npos || (text[start] != '{' && text[start] != '[')) return false;
    const auto opens = [](char c) { return c == '{' || c == '['; };
    return std::count_if(text.begin(), text.end(), opens) > kMaxRecursion;
}

}  // namespace

bool JsonMessage::parse(const std::string& text) {
    reset();
    JsonPool stacks;
    ParsedDocument document(&mPool.allocator(), kParseStackBytes, &stacks.allocator());
    if (mayNestDeeply(text))
        document.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
    else
        document.Parse(text.c_str());
    mRoot.Swap(document);
    mErrorCode = document.GetParseError();
    mErrorOffset = document.GetErrorOffset();
    return !document.HasParseError();
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
