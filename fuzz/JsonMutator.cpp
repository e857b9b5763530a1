// Changes inputs that are JSON as JSON: values are replaced, copied, removed and doubled, and the text stays
// well-formed.

#include <random>
#include <vector>

#include "FuzzTarget.h"
#include "JsonUtils.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace {

using rapidjson::Value;
using Allocator = rapidjson::Document::AllocatorType;

class Mutation {
  public:
    Mutation(rapidjson::Document& document, unsigned seed)
        : mAllocator(document.GetAllocator()), mRandom(seed) {
        collect(document);
    }

    void apply() {
        Value& target = *mNodes[below(mNodes.size())];
        if (target.IsObject() && target.MemberCount() > 0 && below(2) == 0) return changeMembers(target);
        if (target.IsArray() && !target.Empty() && below(2) == 0) return changeElements(target);
        Value replacement = below(2) == 0 ? scalar() : Value(*mNodes[below(mNodes.size())], mAllocator);
        target = replacement;
    }

  private:
    void collect(Value& value) {
        mNodes.push_back(&value);
        if (value.IsObject()) {
            for (auto& member : value.GetObject())
                collect(member.value);
        } else if (value.IsArray()) {
            for (Value& element : value.GetArray())
                collect(element);
        }
    }
    void changeMembers(Value& object) {
        const auto member = object.MemberBegin() + below(object.MemberCount());
        if (below(2) == 0) {
            object.EraseMember(member);
            return;
        }
        Value name(member->name, mAllocator);
        Value value(*mNodes[below(mNodes.size())], mAllocator);
        object.AddMember(name, value, mAllocator);
    }
    void changeElements(Value& array) {
        if (below(2) == 0) {
            array.Erase(array.Begin() + below(array.Size()));
            return;
        }
        array.PushBack(Value(array[below(array.Size())], mAllocator), mAllocator);
    }
    Value scalar() {
        switch (below(8)) {
            case 0:
                return Value(static_cast<int64_t>(mRandom()) << below(32));
            case 1:
                return Value(-static_cast<int>(below(70000)));
            case 2:
                return Value(1e39);
            case 3:
                return Value(below(2) == 0);
            case 4:
                return Value(rapidjson::kNullType);
            case 5:
                return Value("text");
            default:
                return Value(below(300));
        }
    }
    unsigned below(size_t limit) { return static_cast<unsigned>(mRandom() % limit); }

    Allocator& mAllocator;
    std::minstd_rand mRandom;
    std::vector<Value*> mNodes;
};

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned seed) {
    rapidjson::Document document;
    document.Parse(reinterpret_cast<const char*>(data), size);
    if (document.HasParseError() || seed % 4 == 0) return LLVMFuzzerMutate(data, size, maxSize);
    Mutation(document, seed).apply();
    const std::string text = android::JsonUtils::toString(document);
    if (text.empty() || text.size() > maxSize) return LLVMFuzzerMutate(data, size, maxSize);
    std::memcpy(data, text.data(), text.size());
    return text.size();
}
