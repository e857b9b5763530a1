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

/**
 * A desktop service that records what it is asked and answers what the test says. Thread-safe; no lock is
 * held while it calls out. Register it with registerAsService() and reach it through
 * ICameraDesktop::tryGetService().
 */
class FakeDesktopService : public korvanta::hardware::camera::desktop::V2_0::ICameraDesktop {
  public:
    using ClientType = korvanta::hardware::camera::desktop::V2_0::ClientType;
    using ICameraDesktopCallback = korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback;
    using IGraphicBufferProducer = android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;
    using ReplyFunction = std::function<std::string(ClientType type, const std::string& command)>;

    /** What the recorded calls begin with. */
    struct Operation {
        static constexpr char REGISTER_CALLBACK[] = "registerCallback";
        static constexpr char SEND_COMMAND[] = "sendCommand";
        static constexpr char SET_SURFACE[] = "setSurface";
        static constexpr char GET_SURFACE[] = "getSurface";
    };

    /** Makes a service and registers it, in place of an earlier one of that name; aborts when refused. */
    static android::sp<FakeDesktopService> start(const std::string& name = "default");

    /** Answers the commands for one peer, on the caller's thread; the start value replies "". */
    void setReply(ClientType type, ReplyFunction reply);
    void setReply(ClientType type, const std::string& reply);

    /** Later calls of the operation wait, after they were recorded, until unblock(). */
    void block(const std::string& operation);
    void unblock(const std::string& operation);
    /** Waits, at most for a generous limit, until a call of the operation waits; false when none comes. */
    bool awaitBlocked(const std::string& operation);

    /** Runs inside every later call of the operation, after it was recorded, on the caller's thread. */
    void during(const std::string& operation, std::function<void()> action);

    /**
     * The calls so far that begin with the text, oldest first: "registerCallback 2", "setSurface 7 null",
     * "setSurface 7 producer", "getSurface 0", "sendCommand 0 {}".
     */
    std::vector<std::string> calls(const std::string& beginning = "") const;
    void forgetCalls();

    /** What is set at present; null when nothing is. */
    android::sp<ICameraDesktopCallback> callback(ClientType type) const;
    android::sp<IGraphicBufferProducer> surface(ClientType type) const;
    /** Sets a surface as the peer itself would; not recorded. */
    void offerSurface(ClientType type, const android::sp<IGraphicBufferProducer>& producer);

    /**
     * Sends a command to the callback registered for `type`, on the calling thread, and returns its reply;
     * nothing when there is no callback or it failed. Aborts when the callback does not reply exactly once,
     * as its stub would.
     */
    std::optional<std::string> sendToCallback(const std::string& command,
                                              ClientType type = ClientType::CLIENT_CAMERA_HAL);

    android::hardware::Return<void> reserved1() override { return {}; }
    android::hardware::Return<void> reserved2() override { return {}; }
    android::hardware::Return<void> reserved3() override { return {}; }
    android::hardware::Return<void> reserved4() override { return {}; }
    android::hardware::Return<void> registerCallback(
        ClientType type, const android::sp<ICameraDesktopCallback>& callback) override;
    android::hardware::Return<void> sendCommand(ClientType type,
                                                const android::hardware::hidl_string& command,
                                                sendCommand_cb _hidl_cb) override;
    android::hardware::Return<void> setSurface(ClientType type,
                                               const android::sp<IGraphicBufferProducer>& producer) override;
    android::hardware::Return<android::sp<IGraphicBufferProducer>> getSurface(ClientType type) override;

  private:
    void record(const std::string& operation, ClientType type, const std::string& argument = "");

    mutable std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<std::string> mCalls;
    std::map<ClientType, android::sp<ICameraDesktopCallback>> mCallbacks;
    std::map<ClientType, android::sp<IGraphicBufferProducer>> mSurfaces;
    std::map<ClientType, ReplyFunction> mReplies;
    std::map<std::string, std::function<void()>> mActions;
    std::set<std::string> mBlocked;
    std::map<std::string, size_t> mWaiting;
};
