#pragma once

#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

// A desktop service that records what it is asked and answers what the test says. Thread-safe; no lock is
// held while it calls out. Register it with registerAsService() and reach it through
// ICameraDesktop::tryGetService().
class FakeDesktopService : public ::korvanta::hardware::camera::desktop::V2_0::ICameraDesktop {
  public:
    using ClientType = ::korvanta::hardware::camera::desktop::V2_0::ClientType;
    using ICameraDesktopCallback = ::korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback;
    using IGraphicBufferProducer = ::android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;
    using ReplyFunction = std::function<std::string(ClientType type, const std::string& command)>;

    enum class Operation { REGISTER_CALLBACK, SEND_COMMAND, SET_SURFACE, GET_SURFACE };

    struct Call {
        Operation operation;
        ClientType type;
        std::string command = {};      // of SEND_COMMAND
        const void* object = nullptr;  // the callback or surface handed over, to compare only: it may be gone
    };

    // Makes a service and registers it, in place of an earlier one of that name; aborts when refused.
    static ::android::sp<FakeDesktopService> start(const std::string& name = "default");

    // Answers the commands for every peer; the start value replies "". Runs on the caller's thread.
    void setReply(ReplyFunction reply);
    // Answers the commands for one peer, before the general function is asked.
    void setReply(ClientType type, ReplyFunction reply);
    void setReply(ClientType type, const std::string& reply);

    // Later calls of the operation wait, after they were recorded, until unblock().
    void block(Operation operation);
    void unblock(Operation operation);
    // Waits, at most for a generous limit, until so many calls of the operation wait; false when they do not
    // come.
    bool awaitBlocked(Operation operation, size_t count = 1);

    // Every call so far, oldest first; or those of one operation.
    std::vector<Call> calls() const;
    std::vector<Call> calls(Operation operation) const;
    // The texts sent to one peer so far, oldest first.
    std::vector<std::string> commandsTo(ClientType type) const;
    void forgetCalls();

    // What is set at present; null when nothing is.
    ::android::sp<ICameraDesktopCallback> callback(ClientType type) const;
    ::android::sp<IGraphicBufferProducer> surface(ClientType type) const;
    // Sets a surface as the peer itself would; not recorded.
    void offerSurface(ClientType type, const ::android::sp<IGraphicBufferProducer>& producer);

    // Sends a command to the callback registered for `type`, on the calling thread, and returns its reply;
    // nothing when there is no callback or it failed. Aborts when the callback does not reply exactly once,
    // as its stub would.
    std::optional<std::string> sendToCallback(const std::string& command,
                                              ClientType type = ClientType::CLIENT_CAMERA_HAL);

    ::android::hardware::Return<void> reserved1() override { return {}; }
    ::android::hardware::Return<void> reserved2() override { return {}; }
    ::android::hardware::Return<void> reserved3() override { return {}; }
    ::android::hardware::Return<void> reserved4() override { return {}; }
    ::android::hardware::Return<void> registerCallback(
        ClientType type, const ::android::sp<ICameraDesktopCallback>& callback) override;
    ::android::hardware::Return<void> sendCommand(ClientType type,
                                                  const ::android::hardware::hidl_string& command,
                                                  sendCommand_cb _hidl_cb) override;
    ::android::hardware::Return<void> setSurface(
        ClientType type, const ::android::sp<IGraphicBufferProducer>& producer) override;
    ::android::hardware::Return<::android::sp<IGraphicBufferProducer>> getSurface(ClientType type) override;

  private:
    void record(Call call);
    ReplyFunction replyFor(ClientType type) const;

    mutable std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<Call> mCalls;
    std::map<ClientType, ::android::sp<ICameraDesktopCallback>> mCallbacks;
    std::map<ClientType, ::android::sp<IGraphicBufferProducer>> mSurfaces;
    std::map<ClientType, ReplyFunction> mReplies;
    ReplyFunction mReply;
    std::set<Operation> mBlocked;
    std::map<Operation, size_t> mWaiting;
};
