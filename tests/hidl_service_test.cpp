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
using android::hardware::hidl_handle;
using android::hardware::hidl_string;
using android::hardware::interfacesEqual;
using android::hardware::Return;
using android::hardware::Status;
using android::hardware::Void;
using android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;
using android::hardware::graphics::bufferqueue::V1_0::IProducerListener;
using android::hardware::graphics::common::V1_0::PixelFormat;
using android::hidl::base::V1_0::IBase;
using korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
using Operation = FakeDesktopService::Operation;

class Callback : public ICameraDesktopCallback {
  public:
    Return<void> onCommand(const hidl_string& command, onCommand_cb _hidl_cb) override {
        thread = std::this_thread::get_id();
        _hidl_cb("re:" + std::string(command));
        return Void();
    }

    std::thread::id thread;
};

class Producer : public IGraphicBufferProducer {
  public:
    Return<void> requestBuffer(int32_t, requestBuffer_cb) override { return Void(); }
    Return<int32_t> setMaxDequeuedBufferCount(int32_t) override { return 0; }
    Return<void> dequeueBuffer(uint32_t, uint32_t, PixelFormat, uint32_t, bool, dequeueBuffer_cb) override {
        return Void();
    }
    Return<void> queueBuffer(int32_t, const QueueBufferInput&, queueBuffer_cb) override { return Void(); }
    Return<int32_t> cancelBuffer(int32_t, const hidl_handle&) override { return 0; }
    Return<void> connect(const sp<IProducerListener>&, int32_t, bool, connect_cb) override { return Void(); }
    Return<int32_t> disconnect(int32_t, DisconnectMode) override { return 0; }
};

class Recipient : public hidl_death_recipient {
  public:
    struct Notice {
        uint64_t cookie;
        const IBase* who;
        std::thread::id thread;
    };

    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        const sp<IBase> proxy = who.promote();
        std::lock_guard guard(mLock);
        mNotices.push_back({cookie, proxy.get(), std::this_thread::get_id()});
    }

    std::vector<Notice> notices() const {
        std::lock_guard guard(mLock);
        return mNotices;
    }
    std::vector<uint64_t> cookies() const {
        std::vector<uint64_t> all;
        for (const Notice& notice : notices())
            all.push_back(notice.cookie);
        return all;
    }

  private:
    mutable std::mutex mLock;
    std::vector<Notice> mNotices;
};

struct Answer {
    Status status;
    std::vector<std::string> replies;
};

Answer send(const sp<ICameraDesktop>& service, const std::string& command,
            ClientType type = ClientType::CLIENT_APP) {
    Answer answer;
    const Return<void> result = service->sendCommand(
        type, command, [&](const hidl_string& reply) { answer.replies.push_back(reply); });
    if (result.isDeadObject()) {
        answer.status = Status::fromStatusT(android::DEAD_OBJECT);
    } else if (!result.isOk()) {
        answer.status = Status::fromExceptionCode(Status::EX_ILLEGAL_STATE);
    }
    return answer;
}

bool isDead(const Answer& answer) {
    return answer.status.transactionError() == android::DEAD_OBJECT && answer.replies.empty();
}

class ALocalService : public testing::Test {
  protected:
    ALocalService() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        service = FakeDesktopService::start();
        proxy = ICameraDesktop::tryGetService("default", false);
    }
    ~ALocalService() override {
        vel::host::awaitDeathNotices();
        vel::host::clearLocalServices();
    }

    sp<FakeDesktopService> service;
    sp<ICameraDesktop> proxy;
};
using ALocalServiceDeathTest = ALocalService;

// Look-up.

TEST_F(ALocalService, IsFoundAsANewProxyEachTime) {
    ASSERT_NE(proxy, nullptr);
    const sp<ICameraDesktop> second = ICameraDesktop::tryGetService();
    EXPECT_TRUE(proxy->isRemote());
    EXPECT_FALSE(service->isRemote());
    EXPECT_NE(proxy, second);
    EXPECT_TRUE(interfacesEqual(proxy, second));
    EXPECT_FALSE(interfacesEqual(proxy, service));
    EXPECT_FALSE(interfacesEqual(proxy, nullptr));
    EXPECT_EQ(vel::host::localLookUpCount("default"), 2u);
}

TEST_F(ALocalService, IsNotFoundUnderAnotherNameButTheLookUpCounts) {
    EXPECT_EQ(ICameraDesktop::tryGetService("other"), nullptr);
    EXPECT_EQ(vel::host::localLookUpCount("other"), 1u);
}

TEST_F(ALocalService, IsReplacedByALaterRegistration) {
    const sp<FakeDesktopService> successor = FakeDesktopService::start();
    const sp<ICameraDesktop> toSuccessor = ICameraDesktop::tryGetService();
    EXPECT_TRUE(send(toSuccessor, "new").status.isOk());
    EXPECT_TRUE(send(proxy, "old").status.isOk());
    EXPECT_EQ(successor->commandsTo(ClientType::CLIENT_APP), std::vector<std::string>{"new"});
    EXPECT_EQ(service->commandsTo(ClientType::CLIENT_APP), std::vector<std::string>{"old"});
    EXPECT_FALSE(interfacesEqual(proxy, toSuccessor));
}

TEST_F(ALocalService, MayBeRefusedRegistration) {
    vel::host::refuseLocalRegistration("other", true);
    EXPECT_EQ(service->registerAsService("other"), android::UNKNOWN_ERROR);
    EXPECT_EQ(ICameraDesktop::tryGetService("other"), nullptr);
    vel::host::refuseLocalRegistration("other", false);
    EXPECT_EQ(service->registerAsService("other"), android::OK);
}

TEST_F(ALocalService, IsWaitedForByGetService) {
    sp<ICameraDesktop> found;
    std::thread waiting([&found] { found = ICameraDesktop::getService("late"); });
    EXPECT_TRUE(waitUntil([] { return vel::host::localLookUpCount("late") >= 2; }));
    EXPECT_EQ(service->registerAsService("late"), android::OK);
    waiting.join();
    EXPECT_NE(found, nullptr);
}

TEST_F(ALocalService, IsCastByItsInterfaceChain) {
    const sp<IBase> base = proxy;
    EXPECT_EQ(ICameraDesktop::castFrom(base).withDefault(nullptr), proxy);
    EXPECT_EQ(ICameraDesktopCallback::castFrom(base).withDefault(nullptr), nullptr);
    vel::host::killLocalService("default");
    EXPECT_EQ(ICameraDesktop::castFrom(base).withDefault(proxy), nullptr);
    EXPECT_FALSE(ICameraDesktop::castFrom(base, true).isOk());
}

// Calls.

TEST_F(ALocalService, AnswersOnTheCallersThread) {
    const std::string withNul("a\0b", 3);
    std::thread::id thread;
    service->setReply([&thread](ClientType, const std::string& command) {
        thread = std::this_thread::get_id();
        return command + command;
    });
    EXPECT_EQ(send(proxy, withNul).replies, std::vector<std::string>{withNul + withNul});
    EXPECT_EQ(service->commandsTo(ClientType::CLIENT_APP), std::vector<std::string>{withNul});
    EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST_F(ALocalService, ReceivesAndReturnsTheVeryObjects) {
    const sp<Callback> callback = new Callback;
    const sp<Producer> producer = new Producer;
    EXPECT_TRUE(proxy->registerCallback(ClientType::CLIENT_CAMERA_HAL, callback).isOk());
    EXPECT_TRUE(proxy->setSurface(ClientType::CLIENT_IMG_SUB, producer).isOk());
    EXPECT_EQ(service->callback(ClientType::CLIENT_CAMERA_HAL), callback);
    EXPECT_EQ(proxy->getSurface(ClientType::CLIENT_IMG_SUB).withDefault(nullptr), producer);
    EXPECT_EQ(proxy->getSurface(ClientType::CLIENT_APP).withDefault(producer), nullptr);
    EXPECT_TRUE(proxy->setSurface(ClientType::CLIENT_IMG_SUB, nullptr).isOk());
    EXPECT_EQ(service->surface(ClientType::CLIENT_IMG_SUB), nullptr);
    EXPECT_EQ(producer->getStrongCount(), 1);
}

TEST_F(ALocalService, MayCommandTheCallerFromWithinItsCall) {
    const sp<Callback> callback = new Callback;
    EXPECT_TRUE(proxy->registerCallback(ClientType::CLIENT_CAMERA_HAL, callback).isOk());
    service->setReply([this](ClientType, const std::string& command) {
        return service->sendToCallback(command).value_or("none");
    });
    EXPECT_EQ(send(proxy, "x").replies, std::vector<std::string>{"re:x"});
    EXPECT_EQ(callback->thread, std::this_thread::get_id());
    service->setReply(nullptr);
}

TEST_F(ALocalService, IsNotAskedWhenTheReplyFunctionIsNull) {
    const Return<void> result = proxy->sendCommand(ClientType::CLIENT_APP, "x", nullptr);
    EXPECT_FALSE(result.isOk());
    EXPECT_FALSE(result.isDeadObject());
    EXPECT_NE(result.description().find(std::to_string(Status::EX_ILLEGAL_ARGUMENT)), std::string::npos);
    EXPECT_TRUE(service->calls().empty());
}

TEST_F(ALocalService, FailsTheCallsThatItIsToldToFail) {
    vel::host::failNextLocalCalls("default", 1, Status::fromStatusT(android::FAILED_TRANSACTION));
    const sp<Recipient> recipient = new Recipient;
    EXPECT_TRUE(proxy->linkToDeath(recipient, 0).withDefault(false));
    const Answer refused = send(proxy, "x");
    EXPECT_FALSE(refused.status.isOk());
    EXPECT_FALSE(isDead(refused));
    EXPECT_TRUE(refused.replies.empty());
    EXPECT_TRUE(service->calls().empty());
    EXPECT_TRUE(send(proxy, "y").status.isOk());
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

TEST_F(ALocalServiceDeathTest, AbortsUnlessItRepliesExactlyOnce) {
    EXPECT_DEATH(send(proxyOf(new RuleBreaker(0)), "x"), "did not call its reply function");
    EXPECT_DEATH(send(proxyOf(new RuleBreaker(2)), "x"), "called its reply function twice");
    EXPECT_EQ(send(proxyOf(new RuleBreaker(1)), "x").replies.size(), 1u);
}

TEST_F(ALocalServiceDeathTest, AbortsWhenItReturnsAFailure) {
    EXPECT_DEATH((void)proxyOf(new RuleBreaker(1))->setSurface(ClientType::CLIENT_APP, nullptr).isOk(),
                 "a Return should be OK");
}

TEST_F(ALocalServiceDeathTest, AbortsWhereAWorkstationHasNothing) {
    EXPECT_DEATH(ICameraDesktop::tryGetService("default", true), "passthrough");
    EXPECT_DEATH((void)proxy->getHashChain([](const auto&) {}).isOk(), "not available");
}

// Death.

TEST_F(ALocalService, TellsEachRegistrationOnceOnAnotherThread) {
    const sp<Recipient> recipient = new Recipient;
    EXPECT_TRUE(proxy->linkToDeath(recipient, 1).withDefault(false));
    EXPECT_TRUE(proxy->linkToDeath(recipient, 2).withDefault(false));
    EXPECT_TRUE(vel::host::killLocalService("default"));
    vel::host::awaitDeathNotices();
    EXPECT_EQ(recipient->cookies(), (std::vector<uint64_t>{1, 2}));
    for (const Recipient::Notice& notice : recipient->notices()) {
        EXPECT_EQ(notice.who, proxy.get());
        EXPECT_NE(notice.thread, std::this_thread::get_id());
    }
    EXPECT_FALSE(vel::host::killLocalService("default"));
}

TEST_F(ALocalService, FailsEveryCallOnceDead) {
    const sp<Recipient> recipient = new Recipient;
    EXPECT_TRUE(proxy->linkToDeath(recipient, 1).withDefault(false));
    vel::host::killLocalService("default");
    EXPECT_TRUE(isDead(send(proxy, "x")));
    EXPECT_TRUE(proxy->registerCallback(ClientType::CLIENT_CAMERA_HAL, nullptr).isDeadObject());
    EXPECT_TRUE(proxy->setSurface(ClientType::CLIENT_IMG_SUB, nullptr).isDeadObject());
    EXPECT_TRUE(proxy->getSurface(ClientType::CLIENT_IMG_SUB).isDeadObject());
    EXPECT_TRUE(proxy->ping().isDeadObject());
    EXPECT_FALSE(proxy->linkToDeath(recipient, 2).withDefault(true));
    EXPECT_FALSE(proxy->unlinkToDeath(recipient).withDefault(true));
    EXPECT_EQ(ICameraDesktop::tryGetService(), nullptr);
    EXPECT_TRUE(service->calls().empty());
}

TEST_F(ALocalService, IsNotBroughtBackToOldProxiesByARestart) {
    vel::host::killLocalService("default");
    service = FakeDesktopService::start();
    EXPECT_TRUE(isDead(send(proxy, "x")));
    EXPECT_TRUE(send(ICameraDesktop::tryGetService(), "y").status.isOk());
}

TEST_F(ALocalService, ForgetsARecipientThatIsGone) {
    int32_t count = 0;
    {
        const sp<Recipient> recipient = new Recipient;
        EXPECT_TRUE(proxy->linkToDeath(recipient, 1).withDefault(false));
        count = recipient->getStrongCount();
    }
    EXPECT_EQ(count, 1) << "a registration must not hold its recipient";
    vel::host::killLocalService("default");
    vel::host::awaitDeathNotices();
}

TEST_F(ALocalService, ForgetsTheRegistrationsOfADroppedProxy) {
    const sp<Recipient> recipient = new Recipient;
    EXPECT_TRUE(proxy->linkToDeath(recipient, 1).withDefault(false));
    const sp<ICameraDesktop> kept = ICameraDesktop::tryGetService();
    EXPECT_TRUE(kept->linkToDeath(recipient, 2).withDefault(false));
    proxy.clear();
    vel::host::killLocalService("default");
    vel::host::awaitDeathNotices();
    EXPECT_EQ(recipient->cookies(), std::vector<uint64_t>{2});
}

TEST_F(ALocalService, UnlinksTheNewestRegistrationOfTheRecipient) {
    const sp<Recipient> recipient = new Recipient;
    const sp<Recipient> other = new Recipient;
    EXPECT_FALSE(proxy->unlinkToDeath(recipient).withDefault(true));
    for (const uint64_t cookie : {1, 2, 3})
        EXPECT_TRUE(proxy->linkToDeath(recipient, cookie).withDefault(false));
    EXPECT_TRUE(proxy->linkToDeath(other, 4).withDefault(false));
    EXPECT_FALSE(ICameraDesktop::tryGetService()->unlinkToDeath(recipient).withDefault(true));
    EXPECT_TRUE(proxy->unlinkToDeath(recipient).withDefault(false));
    vel::host::killLocalService("default");
    vel::host::awaitDeathNotices();
    EXPECT_EQ(recipient->cookies(), (std::vector<uint64_t>{1, 2}));
    EXPECT_EQ(other->cookies(), std::vector<uint64_t>{4});
}

TEST_F(ALocalService, DoesNotDeliverTheReplyOfACallThatItDidNotSurvive) {
    service->block(Operation::SEND_COMMAND);
    Answer answer;
    std::thread caller([&] { answer = send(proxy, "x"); });
    EXPECT_TRUE(service->awaitBlocked(Operation::SEND_COMMAND));
    vel::host::killLocalService("default");
    service->unblock(Operation::SEND_COMMAND);
    caller.join();
    EXPECT_TRUE(isDead(answer));
}

TEST_F(ALocalService, MayDieAndComeBackWhileThreadsCall) {
    constexpr int kRestarts = 50;
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    const auto call = [&] {
        while (!stop) {
            const sp<ICameraDesktop> found = ICameraDesktop::tryGetService();
            if (found == nullptr) continue;
            const sp<Recipient> recipient = new Recipient;
            (void)found->linkToDeath(recipient, 0).isOk();
            const Answer answer = send(found, "x");
            if (!answer.status.isOk() && !isDead(answer)) ++wrong;
            if (answer.status.isOk() && answer.replies != std::vector<std::string>{"y"}) ++wrong;
        }
    };
    service->setReply(ClientType::CLIENT_APP, "y");
    std::thread first(call);
    std::thread second(call);
    for (int i = 0; i < kRestarts; ++i) {
        EXPECT_TRUE(vel::host::killLocalService("default"));
        EXPECT_EQ(service->registerAsService(), android::OK);
        const size_t calls = service->calls().size();
        EXPECT_TRUE(waitUntil([&] { return service->calls().size() > calls; }));
    }
    stop = true;
    first.join();
    second.join();
    EXPECT_EQ(wrong, 0);
}

TEST(ALocalObject, NeverReportsItsDeath) {
    const sp<Callback> callback = new Callback;
    const sp<Recipient> recipient = new Recipient;
    EXPECT_TRUE(callback->linkToDeath(recipient, 0).withDefault(false));
    EXPECT_FALSE(callback->linkToDeath(nullptr, 0).withDefault(true));
    EXPECT_EQ(recipient->getStrongCount(), 1);
}

}  // namespace
