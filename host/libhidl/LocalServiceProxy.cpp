#include <hidl_host/RemoteIdentity.h>

#include <optional>
#include <utility>

#include "BaseOperations.h"
#include "Fatal.h"
#include "LocalService.h"
#include "LocalServiceRegistry.h"

namespace vel::host {

namespace {

using android::sp;
using android::hardware::hidl_array;
using android::hardware::hidl_death_recipient;
using android::hardware::hidl_handle;
using android::hardware::hidl_string;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Status;
using android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;
using android::hidl::base::V1_0::DebugInfo;
using korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;

Status deadObject() {
    return Status::fromStatusT(android::DEAD_OBJECT);
}

// Presents a service of this process as one of another: calls run on the caller's thread, objects and
// surfaces that are handed over stay the same pointers.
class LocalServiceProxy : public ICameraDesktop {
  public:
    explicit LocalServiceProxy(std::shared_ptr<LocalService> service) : mService(std::move(service)) {
        setRemoteIdentity(this, "local:" + std::to_string(reinterpret_cast<uintptr_t>(mService.get())));
    }
    ~LocalServiceProxy() override {
        mService->forgetProxy(this);
        forgetRemoteIdentity(this);
    }

    bool isRemote() const override { return true; }

    Return<void> interfaceChain(interfaceChain_cb _hidl_cb) override {
        return forwardForReply<hidl_vec<hidl_string>>(
            _hidl_cb, [](ICameraDesktop& service, auto reply) { return service.interfaceChain(reply); });
    }
    Return<void> debug(const hidl_handle& fd, const hidl_vec<hidl_string>& options) override {
        return forward([&](ICameraDesktop& service) { return service.debug(fd, options); });
    }
    Return<void> interfaceDescriptor(interfaceDescriptor_cb _hidl_cb) override {
        return forwardForReply<hidl_string>(
            _hidl_cb, [](ICameraDesktop& service, auto reply) { return service.interfaceDescriptor(reply); });
    }
    Return<void> getHashChain(getHashChain_cb _hidl_cb) override {
        return forwardForReply<hidl_vec<hidl_array<uint8_t, 32>>>(
            _hidl_cb, [](ICameraDesktop& service, auto reply) { return service.getHashChain(reply); });
    }
    Return<void> setHALInstrumentation() override {
        return forward([](ICameraDesktop& service) { return service.setHALInstrumentation(); });
    }
    Return<bool> linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie) override {
        if (const auto fault = takeFault()) return *fault;
        if (recipient == nullptr) return true;
        if (!mService->linkToDeath(this, recipient, cookie)) return false;
        if (mService->object() == nullptr) LocalServiceRegistry::instance().tellDeath(mService);
        return true;
    }
    Return<void> ping() override {
        return forward([](ICameraDesktop& service) { return service.ping(); });
    }
    Return<void> getDebugInfo(getDebugInfo_cb _hidl_cb) override {
        return forwardForReply<DebugInfo>(
            _hidl_cb, [](ICameraDesktop& service, auto reply) { return service.getDebugInfo(reply); });
    }
    Return<void> notifySyspropsChanged() override {
        return forward([](ICameraDesktop& service) { return service.notifySyspropsChanged(); });
    }
    Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& recipient) override {
        if (const auto fault = takeFault()) return *fault;
        return recipient != nullptr && mService->unlinkToDeath(this, recipient);
    }

    Return<void> reserved1() override {
        return forward([](ICameraDesktop& service) { return service.reserved1(); });
    }
    Return<void> reserved2() override {
        return forward([](ICameraDesktop& service) { return service.reserved2(); });
    }
    Return<void> reserved3() override {
        return forward([](ICameraDesktop& service) { return service.reserved3(); });
    }
    Return<void> reserved4() override {
        return forward([](ICameraDesktop& service) { return service.reserved4(); });
    }
    Return<void> registerCallback(ClientType type, const sp<ICameraDesktopCallback>& callback) override {
        return forward([&](ICameraDesktop& service) { return service.registerCallback(type, callback); });
    }
    Return<void> sendCommand(ClientType type, const hidl_string& command, sendCommand_cb _hidl_cb) override {
        return forwardForReply<hidl_string>(_hidl_cb, [&](ICameraDesktop& service, auto reply) {
            return service.sendCommand(type, command, reply);
        });
    }
    Return<void> setSurface(ClientType type, const sp<IGraphicBufferProducer>& producer) override {
        return forward([&](ICameraDesktop& service) { return service.setSurface(type, producer); });
    }
    Return<sp<IGraphicBufferProducer>> getSurface(ClientType type) override {
        sp<IGraphicBufferProducer> surface;
        const Status status = transact([&](ICameraDesktop& service) { surface = service.getSurface(type); });
        if (!status.isOk()) return status;
        return surface;
    }

  private:
    std::optional<Status> takeFault() { return LocalServiceRegistry::instance().takeFault(mService->name()); }

    // Runs `call` on the service unless it is dead or a fault is due. A death meanwhile voids what the call
    // brought.
    template <typename Call>
    Status transact(Call call) {
        const sp<ICameraDesktop> service = mService->object();
        if (service == nullptr) return deadObject();
        if (const auto fault = takeFault()) return *fault;
        call(*service);
        return mService->object() == nullptr ? deadObject() : Status::ok();
    }

    // A service that returns a failed Return aborts, as its stub would.
    template <typename Call>
    Return<void> forward(Call call) {
        return transact([&](ICameraDesktop& service) { call(service).assertOk(); });
    }

    template <typename Result, typename Reply, typename Call>
    Return<void> forwardForReply(const Reply& reply, Call call) {
        if (reply == nullptr) return nullReplyFunction();
        std::optional<Result> result;
        const Status status = transact([&](ICameraDesktop& service) {
            call(service, [&](const Result& value) {
                if (result) fatal("the service called its reply function twice");
                result = value;
            }).assertOk();
            if (!result) fatal("the service did not call its reply function");
        });
        if (status.isOk()) reply(*result);
        return status;
    }

    const std::shared_ptr<LocalService> mService;
};

}  // namespace

sp<ICameraDesktop> makeLocalProxy(const std::shared_ptr<LocalService>& service) {
    return new LocalServiceProxy(service);
}

}  // namespace vel::host
