// The desktop service in the same process, reached as if it were in another.

#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl_host/LocalServices.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FakeDesktopService.h"
#include "WaitUntil.h"

namespace {

using android::sp;
using android::wp;
using android::hardware::hidl_death_recipient;
using android::hardware::hidl_string;
using android::hardware::interfacesEqual;
using android::hardware::Return;
using android::hidl::base::V1_0::IBase;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
using Operation = FakeDesktopService::Operation;

// Notes the cookies in order, and whether every notice named `proxy` on a thread other than the test's.
class Recipient : public hidl_death_recipient {
  public:
    explicit Recipient(const IBase* proxy = nullptr) : mProxy(proxy) {}

    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        std::lock_guard guard(mLock);
        mCookies.push_back(cookie);
        EXPECT_TRUE(mProxy == nullptr || who.promote().get() == mProxy);
        EXPECT_NE(std::this_thread::get_id(), mThread);
    }
    std::vector<uint64_t> cookies() const {
        std::lock_guard guard(mLock);
        return mCookies;
    }

  private:
    const IBase* const mProxy;
    const std::thread::id mThread = std::this_thread::get_id();
    mutable std::mutex mLock;
    std::vector<uint64_t> mCookies;
};

// How a command went: its reply, or the kind of failure.
std::string send(const sp<ICameraDesktop>& service, const std::string& command) {
    std::string reply = "no reply";
    const Return<void> result =
        service->sendCommand(ClientType::CLIENT_APP, command, [&](const hidl_string& text) { reply = text; });
    if (result.isOk()) return reply;
    EXPECT_EQ(reply, "no reply");
    return result.isDeadObject() ? "dead" : "failed";
}

class ALocalService : public testing::Test {
  protected:
    ALocalService() {
        service = start("first");
        proxy = ICameraDesktop::tryGetService("default", false);
    }
    ~ALocalService() override {
        vel::host::awaitDeathNotices();
        vel::host::clearLocalServices();
    }

    static sp<FakeDesktopService> start(const std::string& reply) {
        const sp<FakeDesktopService> started = FakeDesktopService::start();
        started->setReply(ClientType::CLIENT_APP, reply);
        return started;
    }
    static void kill() {
        EXPECT_TRUE(vel::host::killLocalService("default"));
        vel::host::awaitDeathNotices();
    }
    bool link(const sp<Recipient>& recipient, uint64_t cookie) {
        return proxy->linkToDeath(recipient, cookie).withDefault(false);
    }

    sp<FakeDesktopService> service;
    sp<ICameraDesktop> proxy;
};

TEST_F(ALocalService, IsFoundByItsNameAsANewProxyEachTime) {
    ASSERT_NE(proxy, nullptr);
    const sp<ICameraDesktop> second = ICameraDesktop::tryGetService();
    EXPECT_TRUE(proxy->isRemote());
    EXPECT_NE(proxy, second);
    EXPECT_TRUE(interfacesEqual(proxy, second));
    EXPECT_FALSE(interfacesEqual(proxy, service));
    EXPECT_FALSE(interfacesEqual(proxy, nullptr));
}

TEST_F(ALocalService, TellsItsDeathToEachRegistrationOnce) {
    const sp<Recipient> recipient = new Recipient(proxy.get());
    const sp<Recipient> other = new Recipient;
    EXPECT_FALSE(proxy->unlinkToDeath(recipient).withDefault(true));
    for (const uint64_t cookie : {1, 2, 3})
        EXPECT_TRUE(link(recipient, cookie));
    EXPECT_TRUE(link(other, 4));
    EXPECT_TRUE(link(new Recipient, 5)) << "does not hold its recipient";
    sp<ICameraDesktop> dropped = ICameraDesktop::tryGetService();
    EXPECT_TRUE(dropped->linkToDeath(recipient, 6).withDefault(false));
    dropped.clear();
    EXPECT_FALSE(ICameraDesktop::tryGetService()->unlinkToDeath(recipient).withDefault(true));
    EXPECT_TRUE(proxy->unlinkToDeath(recipient).withDefault(false)) << "the newest of this recipient";
    EXPECT_EQ(recipient->getStrongCount(), 1);
    kill();
    EXPECT_EQ(recipient->cookies(), (std::vector<uint64_t>{1, 2}));
    EXPECT_EQ(other->cookies(), std::vector<uint64_t>{4});
    EXPECT_FALSE(vel::host::killLocalService("default"));
}

TEST_F(ALocalService, FailsEveryCallOfAnOldProxyOnceDead) {
    const sp<Recipient> recipient = new Recipient;
    EXPECT_TRUE(link(recipient, 1));
    kill();
    EXPECT_EQ(ICameraDesktop::tryGetService(), nullptr);
    const sp<FakeDesktopService> successor = start("second");
    EXPECT_EQ(send(proxy, "x"), "dead");
    EXPECT_TRUE(proxy->registerCallback(ClientType::CLIENT_CAMERA_HAL, nullptr).isDeadObject());
    EXPECT_TRUE(proxy->setSurface(ClientType::CLIENT_IMG_SUB, nullptr).isDeadObject());
    EXPECT_TRUE(proxy->getSurface(ClientType::CLIENT_IMG_SUB).isDeadObject());
    EXPECT_TRUE(proxy->ping().isDeadObject());
    EXPECT_FALSE(link(recipient, 2));
    EXPECT_FALSE(proxy->unlinkToDeath(recipient).withDefault(true));
    EXPECT_TRUE(service->calls().empty());
    EXPECT_EQ(send(ICameraDesktop::tryGetService(), "x"), "second");
}

TEST_F(ALocalService, TellsItsDeathAtOnceToARecipientThatComesLate) {
    const sp<Recipient> recipient = new Recipient(proxy.get());
    kill();
    EXPECT_TRUE(link(recipient, 1));
    vel::host::awaitDeathNotices();
    EXPECT_EQ(recipient->cookies(), std::vector<uint64_t>{1});
    EXPECT_FALSE(link(recipient, 2)) << "the proxy has told";
    EXPECT_TRUE(link(nullptr, 3)) << "nobody to tell";
}

TEST_F(ALocalService, DoesNotDeliverTheReplyOfACallThatItDidNotSurvive) {
    service->block(Operation::SEND_COMMAND);
    std::string answer;
    std::thread caller([&] { answer = send(proxy, "x"); });
    EXPECT_TRUE(service->awaitBlocked(Operation::SEND_COMMAND));
    vel::host::killLocalService("default");
    service->unblock(Operation::SEND_COMMAND);
    caller.join();
    EXPECT_EQ(answer, "dead");
}

TEST_F(ALocalService, MayDieAndComeBackWhileThreadsCall) {
    std::atomic<bool> stop{false};
    const auto call = [&] {
        while (!stop) {
            const sp<ICameraDesktop> found = ICameraDesktop::tryGetService();
            if (found == nullptr) continue;
            const sp<Recipient> recipient = new Recipient;
            (void)found->linkToDeath(recipient, 0).isOk();
            const std::string answer = send(found, "x");
            EXPECT_TRUE(answer == "first" || answer == "dead") << answer;
        }
    };
    std::thread first(call);
    std::thread second(call);
    for (int restart = 0; restart < 50; ++restart) {
        EXPECT_TRUE(vel::host::killLocalService("default"));
        EXPECT_EQ(service->registerAsService(), android::OK);
        const size_t calls = service->calls().size();
        EXPECT_TRUE(waitUntil([&] { return service->calls().size() > calls; }));
    }
    stop = true;
    first.join();
    second.join();
}

}  // namespace
