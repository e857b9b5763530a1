// What the HAL, the peers and the service's deaths do to the registry of cameras, in any order.

#include <hidl_host/LocalServices.h>

#include <string>

#include "Capture.h"
#include "DesktopHelperTestAccess.h"
#include "DetachedThread.h"
#include "FakeDesktopService.h"
#include "FuzzTarget.h"
#include "VelImgSubHelper.h"
#include "WaitUntil.h"

// The pauses of a reconnection take no time here.
extern "C" int usleep(useconds_t) {
    return 0;
}

namespace {

using Access = DesktopHelperTestAccess;
using ClientType = FakeDesktopService::ClientType;

constexpr uint32_t kNone = VelChiDesktopHelper::INVALID_CAMERA_ID;
constexpr uint32_t kCameras = 16;

class Session {
  public:
    explicit Session(Bytes& input) : mInput(input) { startService(); }
    ~Session() {
        awaitThreads();
        mHelper.reset();
        vel::host::clearLocalServices();
    }

    void act() {
        using Action = void (Session::*)();
        static constexpr Action kActions[] = {
            &Session::open,           &Session::close,       &Session::needsSwitch, &Session::query,
            &Session::startService,   &Session::killService, &Session::setReply,    &Session::capture,
            &Session::disconnectNode, &Session::command,     &Session::command};
        (this->*mInput.oneOf(kActions))();
        check();
    }

  private:
    uint32_t anyId() { return mInput.below(kCameras + 2); }
    VelChiDesktopHelper::DesktopSettings& record(uint32_t id) { return Access::settings(*mHelper, id); }

    void open() {
        const uint32_t fwkId = anyId();
        uint32_t id = fwkId;
        mHelper->updateCameraIdOnHalOpen(id);
        require(fwkId >= kCameras ? id == fwkId : record(fwkId).currentOverrideId == id);
    }
    void close() {
        const uint32_t fwkId = anyId();
        mHelper->onHalClose(fwkId);
        if (fwkId >= kCameras) return;
        mIsSwitched[fwkId] = false;
        require(record(fwkId).currentOverrideId == kNone && !record(fwkId).restartPending);
        require(record(fwkId).requiredOverrideId == record(fwkId).defaultOverrideId);
        require(!record(fwkId).isDesktop || mHelper->mImgSubHelper == nullptr);
    }
    void needsSwitch() {
        uint32_t fwkId = 0;
        if (!mHelper->needsCameraIdSwitch(anyId(), fwkId)) return;
        require(fwkId < kCameras && record(fwkId).currentOverrideId != record(fwkId).requiredOverrideId);
        mIsSwitched[fwkId] = true;
    }
    void query() {
        const uint32_t id = anyId();
        const uint32_t original = mHelper->getOriginalCameraId(id);
        require(original == id || record(original).currentOverrideId == id);
        require(mHelper->isCameraInOverride(id) == (original != id));
        require(mHelper->isDesktopMode(id, OVERRIDE_CAMERA_ID) <=
                mHelper->isDesktopMode(original, FWK_CAMERA_ID));
        (void)mHelper->getCurrentOverrideId(id);
    }
    void command() { require(!mHelper->handleCommand(anyCommand()).empty()); }
    std::string anyCommand() {
        const std::string id = std::to_string(anyId());
        const char* const flag = mInput.below(2) != 0 ? "true" : "false";
        switch (mInput.below(6)) {
            case 0:
                return R"({"event":{"type":"cameraOpen","id":")" + id + R"(","isDesktop":)" + flag +
                       R"(,"packageName":")" + mInput.line() + R"("}})";
            case 1:
                return R"({"event":{"type":"cameraClosed","id":")" + id + R"("}})";
            case 2:
                return R"({"general":{"originalId":)" + id + R"(,"overrideId":)" + std::to_string(anyId()) +
                       "}}";
            case 3:
                return R"({"get":{"what":"overrideId","originalId":)" + id + R"(,"clientName":"c"}})";
            case 4:
                return R"({"imgsub-configure-stream":{"version":"v1","image-width":16,"image-height":8,)"
                       R"("hal-consumer-usage":-1,"hal-consumer-buffer-count":2,)"
                       R"("hal-consumer-v4l2-format":"RAW_PRIVATE","hal-merge-streams":0}})";
            default:
                return mInput.line();
        }
    }

    void startService() {
        mService = FakeDesktopService::start();
        setReply();
    }
    void killService() {
        vel::host::killLocalService("default");
        vel::host::awaitDeathNotices();
    }
    // A peer that answers anything, and may send a command before.
    void setReply() {
        static constexpr const char* kReplies[] = {"", "{}", "no JSON", R"({"android.control.aeMode":[1]})"};
        const char* const reply = mInput.oneOf(kReplies);
        const std::string talkBack = mInput.below(2) != 0 ? anyCommand() : "";
        const auto answer = [service = mService.get(), reply, talkBack](ClientType, const std::string&) {
            if (!talkBack.empty()) (void)service->sendToCallback(talkBack);
            return std::string(reply);
        };
        for (const ClientType peer : {ClientType::CLIENT_APP, ClientType::CLIENT_CAMERA_SERVICE})
            mService->setReply(peer, answer);
    }
    void capture() {
        Capture capture;
        mHelper->handleCaptureMetadata(capture.md, anyId());
    }
    void disconnectNode() {
        mHelper->ImgSubNodeDisconnect();
        require(mHelper->mImgSubHelper == nullptr);
    }

    static void awaitThreads() {
        require(detached_thread::liveCount() == 0 ||
                waitUntil([] { return detached_thread::liveCount() == 0; }));
    }
    void check() {
        awaitThreads();
        int desktops = 0;
        for (uint32_t id = 0; id < kCameras; ++id) {
            require(record(id).requiredOverrideId < kCameras);
            require(record(id).currentOverrideId < kCameras || record(id).currentOverrideId == kNone);
            require(!record(id).restartPending || mIsSwitched[id]);
            if (record(id).isDesktop) ++desktops;
        }
        require(desktops <= 1);
    }

    Bytes& mInput;
    std::unique_ptr<VelChiDesktopHelper> mHelper = Access::create();
    android::sp<FakeDesktopService> mService;
    bool mIsSwitched[kCameras] = {};  // since its last close
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes input(data, size);
    Session session(input);
    for (int actions = 0; actions < 100 && !input.empty(); ++actions)
        session.act();
    return 0;
}
