#include "FrameConfiguration.h"

#include <hardware/gralloc.h>

#include <stdexcept>

#include "FieldList.h"
#include "JsonMessage.h"
#include "JsonUtils.h"

using android::JsonMessage;

namespace vel::sim {

using android::JsonUtils;

namespace {
constexpr int kMaxReaderImages = 58;
}

FrameConfiguration readFrameConfiguration(const std::string& line) {
    FieldList fields(line);
    FrameConfiguration read;
    (void)fields.pair("size", read.size.width, read.size.height);
    if (!isFrameSize(read.size)) throw std::invalid_argument("frames need a size, as in size=1920x1080");
    read.buffers = fields.number("buffers", 16, 1, kMaxReaderImages);
    read.hold = fields.number("hold", -1, 0, INT32_MAX);
    read.effect = parseEffect(fields.text("effect", "tint"));
    fields.rejectOthers(1);
    return read;
}

std::string configurationCommand(const FrameConfiguration& configuration) {
    JsonMessage message;
    auto& allocator = message.allocator();
    rapidjson::Value stream(rapidjson::kObjectType);
    stream.AddMember("version", "v1", allocator);
    stream.AddMember("image-width", configuration.size.width, allocator);
    stream.AddMember("image-height", configuration.size.height, allocator);
    stream.AddMember("hal-consumer-usage", static_cast<int>(GRALLOC_USAGE_SW_READ_OFTEN), allocator);
    stream.AddMember("hal-consumer-buffer-count", configuration.buffers, allocator);
    stream.AddMember("hal-consumer-v4l2-format", "RAW_PRIVATE", allocator);
    message.root().AddMember("imgsub-configure-stream", stream, allocator);
    return message.toText();
}

std::optional<int> acceptedRowBytes(const std::string& reply) {
    JsonMessage message;
    int bytes = 0;
    if (!message.parse(reply) || !message.root().IsObject() ||
        JsonUtils::parseValue(message.root(), "app-consumer-width", bytes, -1) != 0 || bytes <= 0) {
        return std::nullopt;
    }
    return bytes;
}

}  // namespace vel::sim
