#include "DetachedThread.h"

#include <pthread.h>

#include <atomic>
#include <memory>
#include <utility>

#include "HelperLog.h"

namespace detached_thread {

namespace {

using Body = std::function<void()>;

std::atomic<int> gLiveCount{0};

void* runBody(void* argument) {
    {
        std::unique_ptr<Body> body(static_cast<Body*>(argument));
        (*body)();
    }
    gLiveCount.fetch_sub(1);
    return nullptr;
}

// pthread_create and not std::thread, whose constructor ends a process without exceptions when it fails.
int createDetached(Body* body) {
    pthread_attr_t attributes;
    if (const int error = pthread_attr_init(&attributes)) return error;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const int error = pthread_create(&thread, &attributes, runBody, body);
    pthread_attr_destroy(&attributes);
    return error;
}

}  // namespace

void start(const char* purpose, Body body) {
    auto owned = std::make_unique<Body>(std::move(body));
    gLiveCount.fetch_add(1);
    if (const int error = createDetached(owned.get())) {
        gLiveCount.fetch_sub(1);
        VEL_LOGE("No thread for %s: error %d", purpose, error);
        return;
    }
    (void)owned.release();  // the thread's now
}

int liveCount() {
    return gLiveCount.load();
}

}  // namespace detached_thread
