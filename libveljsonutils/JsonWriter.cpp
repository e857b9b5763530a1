#include "JsonWriter.h"

#include "JsonPool.h"

namespace android {

bool writeJson(const rapidjson::Value& value, std::string& out) {
    using Utf8 = rapidjson::UTF8<>;
    using Pool = JsonPool::Allocator;
    using Buffer = rapidjson::GenericStringBuffer<Utf8, Pool>;

    JsonPool pool;
    Buffer buffer(&pool.allocator());
    rapidjson::Writer<Buffer, Utf8, Utf8, Pool> writer(buffer, &pool.allocator());
    const bool complete = value.Accept(writer);
    out.assign(buffer.GetString(), buffer.GetSize());
    return complete;
}

}  // namespace android
