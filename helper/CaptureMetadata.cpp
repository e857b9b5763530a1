#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <algorithm>
#include <cmath>

#include "HelperLog.h"
#include "JsonMessage.h"
#include "MetadataHandler.h"
#include "NeverDestroyed.h"
#include "ProtocolKeys.h"
#include "VelChiDesktopHelper.h"

using android::JsonMessage;
using rapidjson::StringRef;
using rapidjson::Value;

namespace {

using Allocator = rapidjson::Document::AllocatorType;
using StreamSize = std::pair<int, int>;

constexpr char kTimestampTag[] = "android.sensor.timestamp";
constexpr char kMaxStreamSizeTag[] = "com.brisel.zint.velc2d.MaxStreamSize";
constexpr uint32_t kStreamSizeSlotMask = 31;

// Capture threads may look a frame's slot up at once, and the look-up inserts a missing one. A leaf.
android::NeverDestroyed<std::mutex> gStreamSizesLock;

StreamSize lookUpStreamSize(std::map<int, StreamSize>& sizes, uint32_t frameNumber) {
    std::lock_guard<std::mutex> lock(gStreamSizesLock.get());
    return sizes[static_cast<int>(frameNumber & kStreamSizeSlotMask)];
}

// Adds the frame's stream size as a vendor tag, to metadata that has a timestamp but not that tag.
void addMaxStreamSize(std::map<int, StreamSize>& sizes, uint32_t frameNumber, Value& metadata,
                      Allocator& allocator) {
    if (!metadata.HasMember(kTimestampTag) || metadata.HasMember(kMaxStreamSizeTag)) return;
    const StreamSize size = lookUpStreamSize(sizes, frameNumber);
    if (size.first == 0) return;
    Value values(rapidjson::kArrayType);
    values.PushBack(size.first, allocator).PushBack(size.second, allocator);
    metadata.AddMember(Value(kMaxStreamSizeTag), values, allocator);
}

bool holdsNonFinite(const Value& values) {
    return std::any_of(values.Begin(), values.End(), [](const Value& value) {
        return value.IsDouble() && !std::isfinite(value.GetDouble());
    });
}

void dropNonFinite(Value& metadata) {
    for (auto member = metadata.MemberBegin(); member != metadata.MemberEnd();) {
        member = holdsNonFinite(member->value) ? metadata.EraseMember(member) : member + 1;
    }
}

// The message's text, without what JSON cannot express: a null in the place of such a number would end this
// process when the application sends it back.
std::string toText(JsonMessage& message, const char* kind, uint32_t frameNumber) {
    std::string text;
    if (message.serialise(text)) return text;
    VEL_LOGE("%s: left non-finite values out of frame %u", "handleCaptureMetadata", frameNumber);
    dropNonFinite(message.root()[kind]);
    return message.toText();
}

}  // namespace

void VelChiDesktopHelper::handleCaptureMetadata(DesktopCaptureMetadata& md, unsigned cameraId) {
    const char* const kind = md.isRequest ? keys::kRequest : keys::kResult;
    JSON_UNCLEARED JsonMessage message;
    Allocator& allocator = message.allocator();
    Value cameraIds(rapidjson::kObjectType);
    cameraIds.AddMember(Value(keys::kOriginalId), Value(getOriginalCameraId(cameraId)), allocator);
    cameraIds.AddMember(Value(keys::kOverrideId), Value(cameraId), allocator);
    message.root().AddMember(Value(keys::kCameraIds), cameraIds, allocator);
    message.root().AddMember(Value(keys::kFrameNumber), Value(md.frameNumber), allocator);

    Value metadata(rapidjson::kObjectType);
    mMetadataHandler->convertFromMetadata(md, metadata, allocator);
    addMaxStreamSize(mMaxStreamSizes, md.frameNumber, metadata, allocator);
    message.root().AddMember(StringRef(kind), metadata, allocator);

    const std::string reply = setCommandTo(ClientType::CLIENT_APP, toText(message, kind, md.frameNumber));
    if (reply.empty()) return;
    if (!message.parse(reply)) {
        VEL_LOGE("%s: failed to parse result from %s: err=%d at %zu: for str: %s", "handleCaptureMetadata",
                 kind, static_cast<int>(message.errorCode()), message.errorOffset(), reply.c_str());
        return;
    }
    mMetadataHandler->convertToMetadata(md, message.root());
}
