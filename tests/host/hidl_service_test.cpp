// The desktop service in the same process, reached as if it were in another.

#include <gtest/gtest.h>
#include <hidl_host/LocalServices.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FakeDesktopService.h"

namespace {

using android::sp;
using android::wp;
using android::hardware::hidl_string;
using android::hardware::Return;
using android::hidl::base::V1_0::IBase;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
using Operation = FakeDesktopService::Operation;

// Notes the cookies in order, and whether every notice named `proxy` on a thread other than the test's.
class Recipient : public android::hardware::hidl_death_recipient {
  public:
    explicit Recipient(const IBase* proxy) : mProxy(proxy) {}

    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        std::lock_guard guard(mLock);
        mCookies.push_back(cookie);
        EXPECT_EQ(who.promote().get(), mProxy);
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
std::string send(const sp<ICameraDesktop>& service) {
    std::string reply = "no reply";
    const Return<void> result =
        service->sendCommand(ClientType::CLIENT_APP, "x", [&](const hidl_string& text) { reply = text; });
    if (result.isOk()) return reply;
    EXPECT_EQ(reply, "no reply");
    return result.isDeadObject() ? "dead" : "failed";
}

class ALocalService : public testing::Test {
  protected:
    ~ALocalService() override { vel::host::clearLocalServices(); }

    static void kill() {
        EXPECT_TRUE(vel::host::killLocalService("default"));
        vel::host::awaitDeathNotices();
    }

    const sp<FakeDesktopService> service = FakeDesktopService::start();
    const sp<ICameraDesktop> proxy = ICameraDesktop::tryGetService("default", false);
};

TEST_F(ALocalService, TellsItsDeathToEachRegistrationThatIsStillWanted) {
    const sp<Recipient> recipient = new Recipient(proxy.get());
    for (const uint64_t cookie : {1, 2, 3})
        EXPECT_TRUE(proxy->linkToDeath(recipient, cookie).withDefault(false));
    EXPECT_TRUE(proxy->linkToDeath(new Recipient(nullptr), 4).withDefault(false)) << "does not hold it";
    EXPECT_FALSE(ICameraDesktop::tryGetService()->unlinkToDeath(recipient).withDefault(true));
    EXPECT_TRUE(proxy->unlinkToDeath(recipient).withDefault(false)) << "the newest of this recipient";
    EXPECT_EQ(recipient->getStrongCount(), 1);
    kill();
    EXPECT_EQ(recipient->cookies(), (std::vector<uint64_t>{1, 2}));
}

TEST_F(ALocalService, FailsEveryCallOfAnOldProxyOnceDead) {
    kill();
    EXPECT_EQ(ICameraDesktop::tryGetService(), nullptr);
    const sp<FakeDesktopService> successor = FakeDesktopService::start();
    EXPECT_EQ(send(proxy), "dead");
    EXPECT_TRUE(proxy->registerCallback(ClientType::CLIENT_CAMERA_HAL, nullptr).isDeadObject());
    EXPECT_TRUE(proxy->setSurface(ClientType::CLIENT_IMG_SUB, nullptr).isDeadObject());
    EXPECT_TRUE(proxy->getSurface(ClientType::CLIENT_IMG_SUB).isDeadObject());
    EXPECT_TRUE(service->calls().empty());
    EXPECT_EQ(send(ICameraDesktop::tryGetService()), "");
}

TEST_F(ALocalService, DoesNotDeliverTheReplyOfACallThatItDidNotSurvive) {
    service->block(Operation::SEND_COMMAND);
    std::string answer;
    std::thread caller([&] { answer = send(proxy); });
    EXPECT_TRUE(service->awaitBlocked(Operation::SEND_COMMAND));
    kill();
    service->unblock(Operation::SEND_COMMAND);
    caller.join();
    EXPECT_EQ(answer, "dead");
}

}  // namespace
