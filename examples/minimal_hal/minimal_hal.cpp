// A camera HAL in one file: what a HAL calls of libvel_chi_desktop_helper, and when. Copy it to start from.
// Opens framework camera 0 and captures frames on two streams until their number, its argument, is reached.

#include <DesktopCaptureMetadata.h>
#include <VelChiDesktopHelper.h>
#include <VelImgSubHelper.h>
#include <camera_metadata_hidden.h>
#include <hardware/gralloc.h>
#include <ui/GraphicBuffer.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

namespace {

constexpr uint32_t kFwkId = 0, kStreams = 2, kStreamIndexFromEnd = 20;  // of a frame's one row of bytes

// --- Two vendor tags: the metadata library learns their types, the helper resolves their names ---

constexpr char kSection[] = "com.example.sensor";
constexpr const char* kTagNames[] = {"Temperature", "Gain"};  // from VENDOR_SECTION_START on, floats

const char* tagName(const vendor_tag_ops_t*, uint32_t tag) {
    return tag - VENDOR_SECTION_START < 2 ? kTagNames[tag - VENDOR_SECTION_START] : nullptr;
}

const vendor_tag_ops_t kVendorTags = {
    [](const vendor_tag_ops_t*) { return 2; },
    [](const vendor_tag_ops_t*, uint32_t* tags) { tags[1] = (tags[0] = VENDOR_SECTION_START) + 1; },
    [](const vendor_tag_ops_t*, uint32_t) { return kSection; },
    tagName,
    [](const vendor_tag_ops_t* ops, uint32_t tag) { return tagName(ops, tag) != nullptr ? TYPE_FLOAT : -1; },
    {}};

bool resolveVendorTag(const char* section, const char* name, unsigned& id) {
    for (id = VENDOR_SECTION_START; tagName(nullptr, id) != nullptr; ++id)
        if (std::strcmp(section, kSection) == 0 && std::strcmp(name, tagName(nullptr, id)) == 0) return true;
    return false;
}

template <typename Value>
void add(camera_metadata_t* buffer, uint32_t tag, Value value) {
    add_camera_metadata_entry(buffer, tag, &value, 1);
}

// --- A session ---

class Session {
  public:
    explicit Session(VelChiDesktopHelper& helper) : mHelper(helper) {
        open();
        mHelper.sendImgSubHalReadyToApp();
    }
    ~Session() {
        mHelper.ImgSubNodeDisconnect();
        mHelper.onHalClose(kFwkId);  // the framework's id, not the opened one
    }

    void captureFrame(uint32_t frame) {
        restartIfAsked();
        camera_metadata_t* request = allocate_camera_metadata(2, 16);
        add<int32_t>(request, ANDROID_CONTROL_AE_EXPOSURE_COMPENSATION, 0);
        request = exchange(request, frame, /*isRequest=*/true);
        camera_metadata_entry_t taken{};
        find_camera_metadata_entry(request, ANDROID_CONTROL_AE_EXPOSURE_COMPENSATION, &taken);
        const int64_t timestamp = std::chrono::steady_clock::now().time_since_epoch().count();  // ns
        camera_metadata_t* result = allocate_camera_metadata(3, 32);
        add<int64_t>(result, ANDROID_SENSOR_TIMESTAMP, timestamp);
        add<float>(result, VENDOR_SECTION_START, 30.5F);
        add<float>(result, VENDOR_SECTION_START + 1, 1.0F);
        result = exchange(result, frame, /*isRequest=*/false);

        std::printf("frame %u: camera %u, exposure compensation %d, replaced %u of %u\n", frame, mOpenId,
                    taken.data.i32[0], replaceFrames(frame, timestamp), kStreams);
        free_camera_metadata(request);
        free_camera_metadata(result);
    }

  private:
    void open() {
        mOpenId = kFwkId;
        mHelper.updateCameraIdOnHalOpen(mOpenId);  // now the id to open in its place
        std::printf("open %u -> camera %u\n", kFwkId, mOpenId);
    }

    // The application may want another camera: the session begins anew, without a close in between.
    void restartIfAsked() {
        uint32_t fwkId = 0;
        if (mHelper.needsCameraIdSwitch(mOpenId, fwkId)) open();
    }

    // Shows the application a capture and takes its changes; the buffer to go on with.
    camera_metadata_t* exchange(camera_metadata_t* buffer, uint32_t frame, bool isRequest) {
        camera_metadata_t* current = buffer;
        DesktopCaptureMetadata capture{&current, frame, isRequest};
        mHelper.handleCaptureMetadata(capture, mOpenId);
        if (capture.isMetadataReplaced) free_camera_metadata(buffer);
        return current;
    }

    // How many streams got their frame replaced; none while the application has configured no substitution.
    uint32_t replaceFrames(uint32_t frame, int64_t timestamp) {
        const std::shared_ptr<VelImgSubHelper> substitution = std::atomic_load(&mHelper.mImgSubHelper);
        if (substitution == nullptr) return 0;
        for (uint32_t stream = 0; stream < kStreams; ++stream)
            sendOut(*substitution, stream, frame, timestamp);
        uint32_t replaced = 0;
        for (uint32_t stream = 0; stream < kStreams; ++stream) {
            std::shared_ptr<AImage> image;
            if (substitution->imgSubAcquireFrame(stream, image) != nullptr) ++replaced;  // here a HAL uses it
            substitution->imgSubReleaseFrame(stream, std::move(image));
        }
        return replaced;
    }

    static void sendOut(VelImgSubHelper& substitution, uint32_t stream, uint32_t frame, int64_t timestamp) {
        const android::sp<android::GraphicBuffer> buffer = substitution.imgSubGetOutputFrameToFill(stream);
        if (buffer == nullptr) return;
        if (void* row = nullptr; buffer->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &row) == android::NO_ERROR) {
            char* const end = static_cast<char*>(row) + buffer->getWidth();
            std::memset(row, static_cast<int>(frame), buffer->getWidth());  // here a HAL writes its picture
            std::memcpy(end - kStreamIndexFromEnd, &stream, sizeof(stream));
            buffer->unlock();
        }
        substitution.imgSubQueueOutputFrame(stream, timestamp);  // also when it could not be filled
    }

    VelChiDesktopHelper& mHelper;
    uint32_t mOpenId = kFwkId;
};

}  // namespace

int main(int argc, char** argv) {
    const uint32_t frames = argc > 1 ? static_cast<uint32_t>(std::stoul(argv[1])) : 300;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    set_camera_metadata_vendor_ops(&kVendorTags);
    VelChiDesktopHelper& helper = *VelChiDesktopHelper::getInstance();
    helper.setVendorTagCallback(resolveVendorTag);
    Session session(helper);
    for (uint32_t frame = 0; frame < frames; ++frame) {
        session.captureFrame(frame);
        std::this_thread::sleep_for(std::chrono::milliseconds(33));
    }
    return 0;
}
