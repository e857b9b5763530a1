#include "CaptureAnswers.h"

#include "FieldList.h"
#include "JsonMessage.h"
#include "MetadataChanges.h"
#include "Program.h"

using android::JsonMessage;

namespace vel::sim {

namespace {

constexpr char kVerb[] = "answer";

rapidjson::Value toJson(const MetadataChange& change, uint32_t frame, JsonMessage& message) {
    rapidjson::Value array(rapidjson::kArrayType);
    const std::vector<int32_t> values = change.values(frame);
    if (!change.isRational) {
        for (int32_t value : values)
            array.PushBack(value, message.allocator());
        return array;
    }
    for (size_t i = 0; i + 1 < values.size(); i += 2) {
        rapidjson::Value pair(rapidjson::kArrayType);
        pair.PushBack(values[i], message.allocator()).PushBack(values[i + 1], message.allocator());
        array.PushBack(pair, message.allocator());
    }
    return array;
}

}  // namespace

std::optional<CaptureMessage> captureIn(const std::string& message) {
    JsonMessage parsed;
    if (!parsed.parse(message) || !parsed.root().IsObject()) return std::nullopt;
    const auto frame = parsed.root().FindMember("frame_number");
    if (frame == parsed.root().MemberEnd() || !frame->value.IsUint()) return std::nullopt;
    return CaptureMessage{frame->value.GetUint(), parsed.root().HasMember("request")};
}

std::string changesOf(const CaptureMessage& capture) {
    JsonMessage answer;
    for (const MetadataChange& change : metadataChanges()) {
        if (!change.applies(capture.frame, capture.isRequest)) continue;
        answer.root().AddMember(rapidjson::StringRef(change.name), toJson(change, capture.frame, answer),
                                answer.allocator());
    }
    return answer.root().ObjectEmpty() ? "" : answer.toText();
}

bool CaptureAnswers::isCommand(const std::string& line) {
    return FieldList::verbOf(line) == kVerb;
}

bool CaptureAnswers::execute(const std::string& line) {
    std::string text = line.substr(line.find(kVerb) + sizeof(kVerb) - 1);
    JsonMessage answer;
    if (!answer.parse(text) || !answer.root().IsObject()) {
        printLine("error an answer must be a JSON object, as in answer {\"android.control.aeLock\":[1]}");
        return false;
    }
    if (answer.root().ObjectEmpty()) text.clear();
    std::lock_guard<std::mutex> lock(mLock);
    mAnswer = std::move(text);
    return true;
}

std::string CaptureAnswers::to(const CaptureMessage& capture) const {
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mAnswer) return *mAnswer;
    }
    return mChangesSome ? changesOf(capture) : "";
}

}  // namespace vel::sim
