#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>

#include "WaitUntil.h"
#include "WorkerPool.h"

using vel::dbus_transport::WorkerPool;

namespace {

std::atomic<int> gWorkers{0};  // that have done something and live

struct CountedThread {
    CountedThread() { ++gWorkers; }
    ~CountedThread() { --gWorkers; }
};
void countThisThread() {
    thread_local CountedThread counted;
    (void)counted;
}

}  // namespace

TEST(AWorkerPool, BoundsThePeersAndShrinksThoughItIsNeverIdle) {
    static WorkerPool& pool = *new WorkerPool(std::chrono::milliseconds(300));  // never destroyed
    static std::promise<void> gate;
    static std::atomic<size_t> entered{0};
    const auto work = [opened = gate.get_future().share()] {
        countThisThread();
        ++entered;
        opened.wait();
    };
    for (size_t i = 0; i < WorkerPool::kMaxForPeer; ++i)
        EXPECT_TRUE(pool.postFor(":1.1", work));
    EXPECT_FALSE(pool.postFor(":1.1", work));
    EXPECT_TRUE(pool.postFor(":1.2", work)) << "the others go on";
    ASSERT_TRUE(waitUntil([] { return entered == WorkerPool::kMaxForPeer + 1; }));
    gate.set_value();
    // One after the other, without a pause.
    EXPECT_TRUE(waitUntil([] {
        const auto done = std::make_shared<std::promise<void>>();
        if (!pool.postFor(":1.1", [done] { done->set_value(); })) return false;
        done->get_future().wait();
        return gWorkers <= 2;
    }));
}
