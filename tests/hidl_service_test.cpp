// The desktop service in the same process, reached as if it were in another.

#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <hidl_host/LocalServices.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
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
using android::hardware::Status;
using android::hardware::Void;
using android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;
using android::hidl::base::V1_0::IBase;
using korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
using Operation = FakeDesktopService::Operation;

class Callback : public ICameraDesktopCallback {
  public:
    Return<void> onCommand(const hidl_string& command, onCommand_cb _hidl_cb) override {
        _hidl_cb("re:" + std::string(command));
        return Void();
    }
};

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
        GTEST_FLAG_SET(death_test_style, "threadsafe");
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
using ALocalServiceDeathTest = ALocalService;

TEST_F(ALocalService, IsFoundByItsNameAsANewProxyEachTime) {
    ASSERT_NE(proxy, nullptr);
    const sp<ICameraDesktop> second = ICameraDesktop::tryGetService();
    EXPECT_TRUE(proxy->isRemote());
    EXPECT_NE(proxy, second);
    EXPECT_TRUE(interfacesEqual(proxy, second));
    EXPECT_FALSE(interfacesEqual(proxy, service));
    EXPECT_FALSE(interfacesEqual(proxy, nullptr));
    EXPECT_EQ(vel::host::localLookUpCount("default"), 2u);

    sp<ICameraDesktop> found;
    std::thread waiting([&found] { found = ICameraDesktop::getService("late"); });
    EXPECT_TRUE(waitUntil([] { return vel::host::localLookUpCount("late") >= 2; }));
    vel::host::refuseLocalRegistration("late", true);
    EXPECT_EQ(service->registerAsService("late"), android::UNKNOWN_ERROR);
    EXPECT_EQ(ICameraDesktop::tryGetService("late"), nullptr);
    vel::host::refuseLocalRegistration("late", false);
    EXPECT_EQ(service->registerAsService("late"), android::OK);
    waiting.join();
    EXPECT_NE(found, nullptr);
}

TEST_F(ALocalService, IsReplacedByALaterRegistrationForLaterProxiesOnly) {
    const sp<FakeDesktopService> successor = start("second");
    EXPECT_EQ(send(ICameraDesktop::tryGetService(), "x"), "second");
    EXPECT_EQ(send(proxy, "x"), "first");
    EXPECT_FALSE(interfacesEqual(proxy, ICameraDesktop::tryGetService()));
}

TEST_F(ALocalService, IsCastByItsInterfaceChain) {
    const sp<IBase> base = proxy;
    EXPECT_EQ(ICameraDesktop::castFrom(base).withDefault(nullptr), proxy);
    EXPECT_EQ(ICameraDesktopCallback::castFrom(base).withDefault(nullptr), nullptr);
    kill();
    EXPECT_EQ(ICameraDesktop::castFrom(base).withDefault(proxy), nullptr);
}

TEST_F(ALocalService, AnswersOnTheCallersThreadAndMayCallBackMeanwhile) {
    const std::string withNul("a\0b", 3);
    const sp<Callback> callback = new Callback;
    EXPECT_TRUE(proxy->registerCallback(ClientType::CLIENT_CAMERA_HAL, callback).isOk());
    EXPECT_EQ(service->callback(ClientType::CLIENT_CAMERA_HAL), callback) << "the very object";
    std::thread::id thread;
    service->setReply(ClientType::CLIENT_APP, [&](ClientType, const std::string& command) {
        thread = std::this_thread::get_id();
        return service->sendToCallback(command).value_or("none");
    });
    EXPECT_EQ(send(proxy, withNul), "re:" + withNul);
    EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(ALocalService, IsNotAskedByCallsThatFailBefore) {
    const Return<void> result = proxy->sendCommand(ClientType::CLIENT_APP, "x", nullptr);
    EXPECT_FALSE(result.isOk());
    EXPECT_FALSE(result.isDeadObject());
    vel::host::failNextLocalCalls("default", 1, Status::fromStatusT(android::FAILED_TRANSACTION));
    EXPECT_TRUE(link(new Recipient, 0)) << "no call to the service";
    EXPECT_EQ(send(proxy, "x"), "failed");
    EXPECT_TRUE(service->calls().empty());
    EXPECT_EQ(send(proxy, "y"), "first");
}

// A service that breaks the rules of its interface.
class RuleBreaker : public FakeDesktopService {
  public:
    explicit RuleBreaker(int replies) : mReplies(replies) {}

    Return<void> sendCommand(ClientType, const hidl_string&, sendCommand_cb _hidl_cb) override {
        for (int i = 0; i < mReplies; ++i)
            _hidl_cb("reply");
        return Void();
    }
    Return<void> setSurface(ClientType, const sp<IGraphicBufferProducer>&) override {
        return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
    }

  private:
    const int mReplies;
};

sp<ICameraDesktop> proxyOf(const sp<ICameraDesktop>& object) {
    return object->registerAsService() == android::OK ? ICameraDesktop::tryGetService() : nullptr;
}

TEST_F(ALocalServiceDeathTest, AbortsWhenItBreaksTheRulesOfItsInterface) {
    EXPECT_DEATH(send(proxyOf(new RuleBreaker(0)), "x"), "did not call its reply function");
    EXPECT_DEATH(send(proxyOf(new RuleBreaker(2)), "x"), "called its reply function twice");
    EXPECT_EQ(send(proxyOf(new RuleBreaker(1)), "x"), "reply");
    EXPECT_DEATH((void)proxyOf(new RuleBreaker(1))->setSurface(ClientType::CLIENT_APP, nullptr).isOk(),
                 "a Return should be OK");
    EXPECT_DEATH(ICameraDesktop::tryGetService("default", true), "passthrough");
    EXPECT_DEATH((void)proxy->getHashChain([](const auto&) {}).isOk(), "not available");
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
