#include "DetachedThread.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <cerrno>

#include "LogCapture.h"
#include "NextDefinition.h"

namespace {
bool gRefuses = false;
int gDetachState = -1;  // of the last thread
}  // namespace

// In place of the C library's, so that a test can look at the thread and refuse it.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) {
    if (attributes != nullptr) pthread_attr_getdetachstate(attributes, &gDetachState);
    if (gRefuses) return EAGAIN;
    return nextDefinition<decltype(pthread_create)>(__func__)(thread, attributes, body, argument);
}

TEST(ADetachedThread, ThatTheSystemRefusesIsLoggedAndNotCounted) {
    LogCapture log;
    gRefuses = true;
    detached_thread::start("the test", [] { ADD_FAILURE(); });
    gRefuses = false;
    EXPECT_EQ(gDetachState, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(detached_thread::liveCount(), 0);
    EXPECT_THAT(log.texts(), testing::ElementsAre("E No thread for the test: error 11"));
}
