#include "JsonMessage.h"

namespace android {

namespace {

constexpr size_t kParseStackBytes = 1024;

}  // namespace

bool JsonMessage::parse(const std::string& text) {
    reset();
    // RapidJSON's other parser recurses once per level of nesting.
    rapidjson::GenericDocument<rapidjson::UTF8<>, Allocator, Allocator> document(
        &mAllocator, kParseStackBytes, &mAllocator);
    document.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
    mErrorCode = document.GetParseError();
    mErrorOffset = document.GetErrorOffset();
    // It takes a text that starts with a closing bracket, a comma or a colon for an empty one.
    if (mErrorCode == rapidjson::kParseErrorDocumentEmpty && text.c_str()[mErrorOffset] != '\0') {
        mErrorCode = rapidjson::kParseErrorValueInvalid;
    }
    mRoot.Swap(document);
    return mErrorCode == rapidjson::kParseErrorNone;
}

void JsonMessage::reset() {
    mRoot.SetObject();
    mAllocator.Clear();
    mErrorCode = rapidjson::kParseErrorNone;
    mErrorOffset = 0;
}

bool JsonMessage::serialise(std::string& out) const {
    rapidjson::CrtAllocator heap;
    rapidjson::StringBuffer text(&heap, mAllocator.Size());  // few texts are longer than their values
    rapidjson::Writer<rapidjson::StringBuffer> writer(text, &heap);
    const bool complete = mRoot.Accept(writer);
    out.assign(text.GetString(), complete ? text.GetSize() : 0);
    return complete;
}

std::string JsonMessage::toText() const {
    std::string text;
    (void)serialise(text);
    return text;
}

}  // namespace android
