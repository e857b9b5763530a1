#include "JsonWriter.h"

#include <cmath>
#include <cstring>

#include "JsonPool.h"

namespace android {

namespace {

using Utf8 = rapidjson::UTF8<>;
using Pool = JsonPool::Allocator;
using Buffer = rapidjson::GenericStringBuffer<Utf8, Pool>;
using PoolWriter = rapidjson::Writer<Buffer, Utf8, Utf8, Pool>;

// Room for most messages: a buffer that grows leaves its earlier memory behind in the pool.
constexpr size_t kFirstBytes = size_t{12} * 1024;

bool needsEscape(const char* text, size_t length) {
    unsigned found = 0;  // without an early end the loop is vectorised
    for (size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        found |= static_cast<unsigned>(byte < 0x20) | (byte == '"') | (byte == '\\');
    }
    return found != 0;
}

// The same text as the default writer's, which on a pool's buffer would put it together byte by byte.
class TextWriter : public PoolWriter {
  public:
    using PoolWriter::PoolWriter;

    bool Double(double number) {
        if (!std::isfinite(number)) return PoolWriter::Double(number);
        Prefix(rapidjson::kNumberType);
        char* const start = os_->Push(kMaxNumberBytes);
        const char* const end = rapidjson::internal::dtoa(number, start);
        os_->Pop(kMaxNumberBytes - static_cast<size_t>(end - start));
        return EndValue(true);
    }

    bool String(const char* text, rapidjson::SizeType length, bool copy) {
        if (needsEscape(text, length)) return PoolWriter::String(text, length, copy);
        Prefix(rapidjson::kStringType);
        char* const quoted = os_->Push(size_t{length} + 2);
        quoted[0] = '"';
        std::memcpy(quoted + 1, text, length);
        quoted[length + 1] = '"';
        return EndValue(true);
    }

    bool Key(const char* text, rapidjson::SizeType length, bool copy) { return String(text, length, copy); }

  private:
    static constexpr size_t kMaxNumberBytes = 25;  // as the default writer has it
};

}  // namespace

bool writeJson(const rapidjson::Value& value, std::string& out) {
    JsonPool pool;
    Buffer buffer(&pool.allocator(), kFirstBytes);
    TextWriter writer(buffer, &pool.allocator());
    const bool complete = value.Accept(writer);
    out.assign(buffer.GetString(), buffer.GetSize());
    return complete;
}

}  // namespace android
