#include <charconv>

#include "HelperLog.h"
#include "JsonMessage.h"
#include "JsonUtils.h"
#include "MetadataHandler.h"
#include "ProtocolKeys.h"
#include "VelChiDesktopHelper.h"

using android::JsonMessage;
using android::JsonUtils;
using rapidjson::Value;

namespace {

constexpr char kReplyParseError[] = "PARSE_ERR";
constexpr char kReplyOk[] = "OK_HAL";

// The member, or null when it cannot be read; any JSON type will do.
const Value* findMember(const Value& root, const char* name) {
    int error = 0;
    const Value& member = JsonUtils::getValue(error, root, name, -1);
    return error == 0 ? &member : nullptr;
}

// Whether an object has the member. checkExists() ends the process on a root that is neither null nor an
// object, which a peer must not be able to bring about.
bool exists(const Value& root, const char* name) {
    return root.IsObject() && JsonUtils::checkExists(root, name);
}

// The whole text as a decimal number, or INVALID_CAMERA_ID: a sign, a blank or anything left over makes it
// so.
uint32_t cameraIdFromText(const std::string& text) {
    uint32_t id = VelChiDesktopHelper::INVALID_CAMERA_ID;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, id, 10);
    return error == std::errc() && rest == end ? id : VelChiDesktopHelper::INVALID_CAMERA_ID;
}

// A camera id given as a JSON integer; a negative one becomes a number that is no valid id. False when it
// cannot be read.
bool readCameraId(const Value& object, const char* name, uint32_t& id) {
    int number = 0;
    if (JsonUtils::parseValue(object, name, number, -1) != 0) return false;
    id = static_cast<uint32_t>(number);
    return true;
}

// An answer of one member. The value is JSON text already: a number or a quoted word of our own.
std::string answerText(const char* key, const std::string& value) {
    std::string text = "{\"";
    text.append(key).append("\":").append(value).append("}");
    return text;
}

std::string errorAnswer(const std::string& error) {
    return answerText(keys::kError, '"' + error + '"');
}

}  // namespace

std::string VelChiDesktopHelper::handleCommand(const std::string& command) {
    JSON_UNCLEARED JsonMessage message;
    if (!message.parse(command)) {
        VEL_LOGE("%s: failed to parse command: err=%d at %zu", "handleCommand",
                 static_cast<int>(message.errorCode()), message.errorOffset());
        return kReplyParseError;
    }
    const Value& root = message.root();
    if (const Value* filter = findMember(root, keys::kFilterRequests)) {
        mMetadataHandler->setRequestsOfInterest(*filter);
    }
    if (const Value* filter = findMember(root, keys::kFilterResults)) {
        mMetadataHandler->setResultsOfInterest(*filter);
    }
    if (exists(root, keys::kSurfaceConfig)) VEL_LOGD("Found surface configuration");
    if (exists(root, keys::kImgSubConfigureStream)) {
        const Value* config = findMember(root, keys::kImgSubConfigureStream);
        if (config != nullptr) return handleImgSubStreamConfig(*config);
    }
    if (const Value* event = findMember(root, keys::kEvent)) handleEventMessage(*event);
    if (const Value* general = findMember(root, keys::kGeneral)) handleGeneralCommand(*general);
    if (const Value* get = findMember(root, keys::kGet)) return handleGetCommand(*get);
    return kReplyOk;
}

void VelChiDesktopHelper::handleEventMessage(const Value& event) {
    std::string type;
    if (!event.IsObject() || JsonUtils::parseValue(event, keys::kType, type, -1) != 0) return;

    if (type == keys::kCameraOpen) {
        handleCameraOpenEvent(event);
    } else if (type == keys::kCameraClosed) {
        handleCameraClosedEvent(event);
    } else {
        VEL_LOGE("Unknown event type %s", type.c_str());
    }
}

void VelChiDesktopHelper::handleCameraOpenEvent(const Value& event) {
    std::string idText;
    bool isDesktop = false;
    const bool idRead = JsonUtils::parseValue(event, keys::kId, idText, -1) == 0;
    const bool isDesktopRead = JsonUtils::parseValue(event, keys::kIsDesktop, isDesktop, -1) == 0;
    const uint32_t id = idRead ? cameraIdFromText(idText) : INVALID_CAMERA_ID;
    if (!isDesktopRead || !isValidCameraId(id)) {
        VEL_LOGE("%s: Failed to parse open command - cameraId %s", "handleEventMessage", idText.c_str());
        return;
    }

    std::lock_guard<std::mutex> lock(mSettingsLock);
    DesktopSettings& settings = mDesktopSettings[id];
    // One desktop camera at a time, and the first one keeps it. The camera's own record counts: a second
    // desktop open without a close between turns its flag off.
    settings.isDesktop = isDesktop && !isAnyCameraDesktopLocked();
    VEL_LOGI("%s: cameraId %u is opening - desktop: %s", "handleEventMessage", id,
             settings.isDesktop ? "true" : "false");
    std::string packageName;
    if (JsonUtils::parseValue(event, keys::kPackageName, packageName, -1) != 0) return;
    VEL_LOGI("%s: pkg: %s", "handleEventMessage", packageName.c_str());
    settings.overrideAllowed = isOverrideAllowedForPackage(packageName);
}

bool VelChiDesktopHelper::isAnyCameraDesktopLocked() const {
    for (const DesktopSettings& settings : mDesktopSettings) {
        if (settings.isDesktop) return true;
    }
    return false;
}

void VelChiDesktopHelper::handleCameraClosedEvent(const Value& event) {
    std::string idText;
    if (JsonUtils::parseValue(event, keys::kId, idText, -1) != 0) {
        VEL_LOGE("%s: Failed to parse close command - cameraId %s", "handleEventMessage", idText.c_str());
        return;
    }
    const uint32_t id = cameraIdFromText(idText);
    if (!isValidCameraId(id)) {
        VEL_LOGE("%s: Failed to parse camera id %s on close command", "handleEventMessage", idText.c_str());
        return;
    }
    VEL_LOGI("%s: cameraId %u has closed - reset desktop settings", "handleEventMessage", id);
    std::lock_guard<std::mutex> lock(mSettingsLock);
    mDesktopSettings[id].isDesktop = false;
}

void VelChiDesktopHelper::handleGeneralCommand(const Value& general) {
    VEL_LOGD("Found general cmd");
    if (!general.IsObject()) {
        VEL_LOGE("Invalid cmd");
        return;
    }
    uint32_t originalId = INVALID_CAMERA_ID;
    uint32_t overrideId = INVALID_CAMERA_ID;
    if (!readCameraId(general, keys::kOriginalId, originalId) || !isValidCameraId(originalId)) return;
    if (!readCameraId(general, keys::kOverrideId, overrideId) || !isValidCameraId(overrideId)) return;

    VEL_LOGD("setRequiredOverrideId %u -> %u", originalId, overrideId);
    setRequiredOverrideId(originalId, overrideId);
}

std::string VelChiDesktopHelper::handleGetCommand(const Value& get) {
    if (!get.IsObject()) {
        VEL_LOGE("Invalid json for get command: %s", get.IsString() ? get.GetString() : "not an object");
        return errorAnswer("Invalid cmd");
    }
    std::string what;
    (void)JsonUtils::parseValue(get, keys::kWhat, what, -1);  // unreadable is as unknown as any other word
    if (what != keys::kOverrideId) {
        VEL_LOGE("Get command not implemented for %s", what.c_str());
        return errorAnswer("Not implemented");
    }
    return answerOverrideId(get);
}

std::string VelChiDesktopHelper::answerOverrideId(const Value& get) {
    int originalId = 0;
    std::string clientName;
    const bool idRead = JsonUtils::parseValue(get, keys::kOriginalId, originalId, -1) == 0;
    if (!idRead) VEL_LOGE("Failed to parse originalId");
    if (JsonUtils::parseValue(get, keys::kClientName, clientName, -1) != 0) {
        VEL_LOGE("Failed to parse clientName");
    }
    const uint32_t answer =
        idRead ? overrideIdForClient(static_cast<uint32_t>(originalId), clientName) : INVALID_CAMERA_ID;
    if (!isValidCameraId(answer)) {
        VEL_LOGE("Missing or invalid info %i, %s", originalId, clientName.c_str());
        return errorAnswer("Unknown");
    }
    return answerText(keys::kOverrideId, std::to_string(answer));
}

// What the HAL has open for the camera, or what it would open for this client; INVALID_CAMERA_ID when neither
// can be told.
uint32_t VelChiDesktopHelper::overrideIdForClient(uint32_t originalId, const std::string& clientName) {
    if (!isValidCameraId(originalId)) return INVALID_CAMERA_ID;

    std::lock_guard<std::mutex> lock(mSettingsLock);
    const DesktopSettings& settings = mDesktopSettings[originalId];
    if (isValidCameraId(settings.currentOverrideId)) return settings.currentOverrideId;
    if (clientName.empty()) return INVALID_CAMERA_ID;
    return isOverrideAllowedForPackage(clientName) ? settings.requiredOverrideId : originalId;
}
