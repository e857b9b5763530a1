// Threads that share an object by nothing but its reference count. Of interest in a ThreadSanitizer build,
// which fails the program when it sees a race.

#include <gtest/gtest.h>
#include <utils/RefBase.h>

#include <atomic>
#include <thread>

#include "WaitUntil.h"

namespace {

using android::RefBase;
using android::sp;

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
    // The first reference dropped looks a function up, which orders threads by itself: that one is dropped
    // here.
    sp<Counted>(new Counted(&last)).clear();
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

}  // namespace
