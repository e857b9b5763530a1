#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ui/Fence.h>

#include <thread>

#include "SignalFence.h"
#include "WaitUntil.h"

using namespace android;

namespace {

constexpr int kLate = -62;  // -ETIME, which is not TIMED_OUT

int openDescriptorCount() {
    DIR* directory = opendir("/proc/self/fd");
    int count = 0;
    while (readdir(directory))
        count++;
    closedir(directory);
    return count;
}

TEST(Fence, InvalidFence_IsSignaledAndNeverWaits) {
    for (const sp<Fence>& fence : {Fence::NO_FENCE, sp<Fence>(new Fence), sp<Fence>(new Fence(-1))}) {
        EXPECT_FALSE(fence->isValid());
        EXPECT_EQ(NO_ERROR, fence->wait(Fence::TIMEOUT_NEVER));
        EXPECT_EQ(Fence::Status::Signaled, fence->getStatus());
        EXPECT_EQ(-1, fence->dup());
        EXPECT_EQ(Fence::SIGNAL_TIME_INVALID, fence->getSignalTime());
    }
}

TEST(Fence, UnsignalledFence_WaitEndsWithEtime) {
    SignalFence signal;
    EXPECT_EQ(kLate, signal.fence()->wait(0));
    EXPECT_EQ(kLate, signal.fence()->wait(5));
    EXPECT_EQ(Fence::Status::Unsignaled, signal.fence()->getStatus());
    EXPECT_EQ(Fence::SIGNAL_TIME_PENDING, signal.fence()->getSignalTime());
}

TEST(Fence, SignalledFence_StaysSignalled) {
    SignalFence signal;
    signal.signal();
    EXPECT_EQ(NO_ERROR, signal.fence()->wait(0));
    EXPECT_EQ(NO_ERROR, signal.fence()->wait(Fence::TIMEOUT_NEVER)) << "a wait must not use the signal up";
    EXPECT_EQ(Fence::Status::Signaled, signal.fence()->getStatus());
    const nsecs_t seen = signal.fence()->getSignalTime();
    EXPECT_LE(seen, systemTime(SYSTEM_TIME_MONOTONIC));
    EXPECT_EQ(seen, signal.fence()->getSignalTime());
}

TEST(Fence, WaitWithoutLimit_EndsWithSignalOfAnotherThread) {
    SignalFence signal;
    std::thread signaller([&] { signal.signal(); });
    EXPECT_EQ(NO_ERROR, signal.fence()->waitForever("test"));
    signaller.join();
}

TEST(Fence, ClosedDescriptor_WaitIsEinval) {
    const sp<Fence> fence(new Fence(1 << 20));
    EXPECT_EQ(-EINVAL, fence->wait(0));
    EXPECT_EQ(Fence::Status::Invalid, fence->getStatus());
}

TEST(Fence, OwnsItsDescriptor_DupOutlivesIt) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    sp<Fence> fence(new Fence(ends[0]));
    const int copy = fence->dup();
    EXPECT_NE(ends[0], copy);
    fence.clear();
    EXPECT_EQ(-1, fcntl(ends[0], F_GETFD)) << "the descriptor must be closed with its fence";

    const sp<Fence> outliving(new Fence(copy));
    EXPECT_EQ(kLate, outliving->wait(0));
    ASSERT_EQ(1, write(ends[1], "x", 1));
    EXPECT_EQ(NO_ERROR, outliving->wait(0));
    close(ends[1]);
}

TEST(FenceMerge, OfInvalidFences_IsNoFence) {
    EXPECT_EQ(Fence::NO_FENCE, Fence::merge("test", new Fence, Fence::NO_FENCE));
}

TEST(FenceMerge, WithOneValidFence_FollowsThatOne) {
    for (const bool validIsFirst : {true, false}) {
        SignalFence signal;
        const sp<Fence> merged = validIsFirst ? Fence::merge("test", signal.fence(), Fence::NO_FENCE)
                                              : Fence::merge("test", Fence::NO_FENCE, signal.fence());
        EXPECT_NE(signal.fence(), merged);
        EXPECT_EQ(kLate, merged->wait(0));
        signal.signal();
        EXPECT_EQ(NO_ERROR, merged->wait(Fence::TIMEOUT_NEVER));
    }
}

TEST(FenceMerge, OfTwoPending_SignalsOnlyAfterBoth) {
    for (const bool firstComesFirst : {true, false}) {
        SignalFence first;
        SignalFence second;
        const sp<Fence> merged = Fence::merge("test", first.fence(), second.fence());
        EXPECT_EQ(kLate, merged->wait(0));
        (firstComesFirst ? first : second).signal();
        EXPECT_EQ(kLate, merged->wait(20)) << "one of two signals must not do";
        (firstComesFirst ? second : first).signal();
        EXPECT_EQ(NO_ERROR, merged->wait(Fence::TIMEOUT_NEVER));
        EXPECT_EQ(NO_ERROR, merged->wait(0));
    }
}

TEST(FenceMerge, OfTwoSignalled_IsSignalled) {
    SignalFence first;
    SignalFence second;
    first.signal();
    second.signal();
    EXPECT_EQ(NO_ERROR, Fence::merge("test", first.fence(), second.fence())->wait(0));
}

TEST(FenceMerge, WithAClosedDescriptor_IsNoFence) {
    SignalFence pending;
    EXPECT_EQ(Fence::NO_FENCE, Fence::merge("test", pending.fence(), new Fence(1 << 20)));
    EXPECT_EQ(Fence::NO_FENCE, Fence::merge("test", new Fence(1 << 20), pending.fence()));
}

TEST(FenceMerge, OfTwoPending_DroppedUnsignalled_LeaksNothing) {
    SignalFence first;
    SignalFence second;
    const int before = openDescriptorCount();
    for (int i = 0; i < 50; i++)
        Fence::merge("test", first.fence(), second.fence());
    // Fewer than before when the watcher of an earlier fence ends meanwhile.
    EXPECT_TRUE(waitUntil([&] { return openDescriptorCount() <= before; }));
}

}  // namespace
