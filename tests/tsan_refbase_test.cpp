// Threads that share an object by nothing but its reference count. Of interest in a ThreadSanitizer build,
// which fails the program when it sees a race.

#include <gtest/gtest.h>
#include <utils/RefBase.h>

#include <atomic>
#include <thread>
#include <utility>

#include "WaitUntil.h"

namespace {

using android::RefBase;
using android::sp;
using android::wp;

class Counted : public RefBase {
  public:
    explicit Counted(int* last) : mLast(last) {}
    void set(int value) { mValue = value; }

  private:
    ~Counted() override { *mLast = mValue; }

    int* const mLast;
    int mValue = 0;
};

TEST(ASharedObject, IsDeletedOnTheThreadThatDropsItLast) {
    int last = 0;
    std::atomic<bool> dropped{false};
    sp<Counted> object = new Counted(&last);
    std::thread other([copy = object, &dropped]() mutable {
        copy->set(7);
        copy.clear();
        // Relaxed, so that nothing but the count orders the two threads.
        dropped.store(true, std::memory_order_relaxed);
    });
    EXPECT_TRUE(waitUntil([&] { return dropped.load(std::memory_order_relaxed); }));
    object.clear();
    EXPECT_EQ(last, 7);
    other.join();
}

TEST(ASharedObject, IsDeletedByAnotherThreadThatPromotedIt) {
    int last = 0;
    std::atomic<bool> promoted{false};
    std::atomic<bool> dropped{false};
    sp<Counted> object = new Counted(&last);
    std::thread other([weak = wp<Counted>(object), &promoted, &dropped] {
        const sp<Counted> copy = weak.promote();
        promoted.store(true, std::memory_order_relaxed);
        EXPECT_TRUE(waitUntil([&] { return dropped.load(std::memory_order_relaxed); }));
    });
    EXPECT_TRUE(waitUntil([&] { return promoted.load(std::memory_order_relaxed); }));
    object->set(8);
    object.clear();
    dropped.store(true, std::memory_order_relaxed);
    other.join();
    EXPECT_EQ(last, 8);
}

}  // namespace
