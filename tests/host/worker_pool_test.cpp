#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <memory>
#include <vector>

#include "NextDefinition.h"
#include "WaitUntil.h"
#include "WorkerPool.h"

using vel::dbus_transport::WorkerPool;

namespace {

std::atomic<bool> gRefusesThreads{false};
std::atomic<int> gWorkers{0};  // that have done something and live

struct CountedThread {
    CountedThread() { ++gWorkers; }
    ~CountedThread() { --gWorkers; }
};
void countThisThread() {
    thread_local CountedThread counted;
    (void)counted;
}

// Pieces of work that wait.
struct Gate {
    WorkerPool::Work work() {
        return [this] {
            countThisThread();
            ++entered;
            opened.wait();
        };
    }
    void open() { promise.set_value(); }

    std::promise<void> promise;
    std::shared_future<void> opened = promise.get_future().share();
    std::atomic<size_t> entered{0};
};

}  // namespace

// In place of the C library's, so that a test can refuse a thread.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) {
    if (gRefusesThreads) return EAGAIN;
    return nextDefinition<decltype(pthread_create)>(__func__)(thread, attributes, body, argument);
}

// Pools are never destroyed.
TEST(AWorkerPool, BoundsThePeersAndShrinksThoughItIsNeverIdle) {
    static WorkerPool& pool = *new WorkerPool(std::chrono::milliseconds(300));
    static Gate& gate = *new Gate;
    for (size_t i = 0; i < WorkerPool::kMaxForPeer; ++i)
        EXPECT_TRUE(pool.postFor(":1.1", gate.work()));
    EXPECT_FALSE(pool.postFor(":1.1", gate.work()));
    EXPECT_TRUE(pool.postFor(":1.2", gate.work())) << "the others go on";
    ASSERT_TRUE(waitUntil([] { return gate.entered == WorkerPool::kMaxForPeer + 1; }));
    gate.open();
    // One after the other, without a pause.
    EXPECT_TRUE(waitUntil([] {
        const auto done = std::make_shared<std::promise<void>>();
        if (!pool.postFor(":1.1", [done] { done->set_value(); })) return false;
        done->get_future().wait();
        return gWorkers <= 2;
    }));
}

TEST(AWorkerPool, WithoutThreadsRefusesThePeersAndDoesItsOwnWork) {
    static WorkerPool& pool = *new WorkerPool;
    gRefusesThreads = true;
    EXPECT_FALSE(pool.start());
    gRefusesThreads = false;
    ASSERT_TRUE(pool.start());
    gRefusesThreads = true;
    EXPECT_FALSE(pool.postFor(":1.1", [] { ADD_FAILURE(); }));
    static std::atomic<int> done{0};
    for (int i = 0; i < 3; ++i)
        pool.post([] { ++done; });
    EXPECT_TRUE(waitUntil([] { return done == 3; }));
    gRefusesThreads = false;
}
