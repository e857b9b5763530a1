#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>
#include <media/NdkImage.h>
#include <media/NdkImageReader.h>

#include "HelperLog.h"
#include "JsonMessage.h"
#include "JsonUtils.h"
#include "ProtocolKeys.h"
#include "ReplacementFrame.h"
#include "VelChiDesktopHelper.h"
#include "VelImgSubHelper.h"

using android::JsonMessage;
using android::JsonUtils;
using android::sp;
using rapidjson::Value;

namespace {

constexpr char kSupportedFormat[] = "RAW_PRIVATE";
constexpr char kHeaderVersion[] = "v1";
constexpr char kNoReader[] = "Failed to create AImageReader";
constexpr int kNoUsage = -1;
constexpr int kMaxReaderImages = 62;     // the media library ends the process for the two numbers above
constexpr uint32_t kRowCount = 1;        // a frame is one row of bytes
constexpr uint32_t kAppBufferCount = 6;  // what the application's queue gets, whatever the reader holds

// What the application asks for.
struct StreamRequest {
    std::string version;
    int imageWidth = 0;
    int imageHeight = 0;
    int usage = kNoUsage;
    int bufferCount = 0;
    std::string format;
    int mergeStreams = 0;
};

// Reads the request; the reply to give instead when it cannot be read, else an empty text.
std::string readRequest(const Value& config, StreamRequest& request) {
    if (!config.IsObject()) return "error";
    const char* missing = nullptr;
    const auto read = [&](const char* key, auto& out) {
        const bool isRead = JsonUtils::parseValue(config, key, out, -1) == 0;
        if (!isRead) missing = key;
        return isRead;
    };
    const bool complete =
        read(keys::kVersion, request.version) && read(keys::kImageWidth, request.imageWidth) &&
        read(keys::kImageHeight, request.imageHeight) && read(keys::kConsumerUsage, request.usage) &&
        read(keys::kConsumerBufferCount, request.bufferCount) && read(keys::kConsumerFormat, request.format);
    if (!complete) return std::string(missing) + " missing";
    (void)JsonUtils::parseValue(config, keys::kMergeStreams, request.mergeStreams, -1);  // 0 when unreadable
    return "";
}

// Null when the media library refuses.
AImageReader* createReader(const StreamRequest& request, uint32_t rowBytes) {
    if (request.bufferCount > kMaxReaderImages) return nullptr;
    AImageReader* reader = nullptr;
    const auto width = static_cast<int32_t>(rowBytes);
    const media_status_t status =
        request.usage == kNoUsage
            ? AImageReader_new(width, kRowCount, AIMAGE_FORMAT_RAW_PRIVATE, request.bufferCount, &reader)
            : AImageReader_newWithUsage(width, kRowCount, AIMAGE_FORMAT_RAW_PRIVATE,
                                        static_cast<uint64_t>(static_cast<int64_t>(request.usage)),
                                        request.bufferCount, &reader);
    return status == AMEDIA_OK ? reader : nullptr;
}

// What the application is to produce.
std::string acceptance(uint32_t rowBytes) {
    JSON_UNCLEARED JsonMessage reply;
    auto& allocator = reply.allocator();
    reply.root().AddMember(Value(keys::kAppConsumerWidth), Value(rowBytes), allocator);
    reply.root().AddMember(Value(keys::kAppConsumerHeight), Value(kRowCount), allocator);
    reply.root().AddMember(Value(keys::kAppConsumerBufferCount), Value(kAppBufferCount), allocator);
    reply.root().AddMember(Value(keys::kAppConsumerFormat), Value(kSupportedFormat), allocator);
    reply.root().AddMember(Value(keys::kHeaderVersion), Value(kHeaderVersion), allocator);
    return reply.toText();
}

}  // namespace

std::string VelChiDesktopHelper::handleImgSubStreamConfig(const Value& config) {
    VEL_LOGD("%s called", "handleImgSubStreamConfig");
    StreamRequest request;
    std::string failure = readRequest(config, request);
    if (!failure.empty()) return failure;

    // The earlier substitution ends whatever becomes of this request.
    replaceImgSubHelper(nullptr);
    setImgSubSurface(nullptr);
    if (request.format != kSupportedFormat) {
        VEL_LOGE("Bad format received: %s", request.format.c_str());
        return "Invalid format";
    }
    const uint32_t rowBytes = replacement_frame::rowBytes(request.imageWidth, request.imageHeight);
    AImageReader* const reader = createReader(request, rowBytes);
    if (reader == nullptr) {
        VEL_LOGE(kNoReader);
        return kNoReader;
    }
    const sp<HidlProducer> producer = getIGraphicBufferProducer(reader);
    setImgSubSurface(producer);
    std::string reply = acceptance(rowBytes);
    const auto created = std::make_shared<VelImgSubHelper>(
        producer, reader, rowBytes, kRowCount, AIMAGE_FORMAT_RAW_PRIVATE, request.imageWidth,
        request.imageHeight, /*appConnected=*/true, request.mergeStreams >= 1);
    replaceImgSubHelper(created);
    return reply;
}

// Whoever takes a helper out tells it so, also the one that another configuration has just put there.
bool VelChiDesktopHelper::replaceImgSubHelper(const std::shared_ptr<VelImgSubHelper>& next) {
    const std::shared_ptr<VelImgSubHelper> old = std::atomic_exchange(&mImgSubHelper, next);
    if (old == nullptr) return false;
    old->setImgSubAppConnected(false);
    return true;
}

void VelChiDesktopHelper::setImgSubSurface(const sp<HidlProducer>& producer) {
    const sp<ICameraDesktop> service = serviceProxy();
    if (service != nullptr) (void)service->setSurface(ClientType::CLIENT_IMG_SUB, producer).isOk();
}

void VelChiDesktopHelper::sendImgSubHalReadyToApp() {
    JSON_UNCLEARED JsonMessage message;
    auto& allocator = message.allocator();
    Value limits(rapidjson::kObjectType);
    limits.AddMember(Value(keys::kMaxWidth), Value(0), allocator);  // no limits
    limits.AddMember(Value(keys::kMaxHeight), Value(0), allocator);
    Value event(rapidjson::kObjectType);
    event.AddMember(Value(keys::kImgSubHalReady), limits, allocator);
    message.root().AddMember(Value(keys::kImgSubEvent), event, allocator);

    const std::string reply = setCommandTo(ClientType::CLIENT_APP, message.toText());
    VEL_LOGD("%s: App replied %s", "sendImgSubHalReadyToApp", reply.c_str());
}

void VelChiDesktopHelper::ImgSubNodeDisconnect() {
    std::lock_guard<std::mutex> lock(mServiceLock);
    std::shared_ptr<VelImgSubHelper> current = std::atomic_load(&mImgSubHelper);
    if (current != nullptr) {
        // The member's reference and this one; with a third, somebody still uses the helper.
        if (current.use_count() != 2) return;
        VelImgSubHelper* const unused = current.get();
        if (!std::atomic_compare_exchange_strong(&mImgSubHelper, &current,
                                                 std::shared_ptr<VelImgSubHelper>())) {
            return;  // a configuration has replaced it meanwhile
        }
        unused->setImgSubAppConnected(false);
        current.reset();
    }
    setImgSubSurface(nullptr);
}
