#include <gtest/gtest.h>
#include <ui/Fence.h>

#include <thread>

#include "SignalFence.h"

using namespace android;

namespace {

constexpr int kLate = -62;  // -ETIME, which is not TIMED_OUT

TEST(AFence, ThatIsInvalidNeverWaits) {
    for (const sp<Fence>& fence : {Fence::NO_FENCE, sp<Fence>(new Fence(-1))}) {
        EXPECT_FALSE(fence->isValid());
        EXPECT_EQ(NO_ERROR, fence->wait(Fence::TIMEOUT_NEVER));
        EXPECT_EQ(-1, fence->dup());
    }
}

TEST(AFence, IsWaitedForUntilItSignalsForGood) {
    SignalFence signal;
    const sp<Fence>& fence = signal.fence();
    EXPECT_EQ(kLate, fence->wait(0));
    EXPECT_EQ(kLate, fence->wait(5));
    std::thread signaller([&] { signal.signal(); });
    EXPECT_EQ(NO_ERROR, fence->waitForever("test"));
    signaller.join();
    EXPECT_EQ(NO_ERROR, fence->wait(Fence::TIMEOUT_NEVER)) << "a wait must not use the signal up";
}

}  // namespace
