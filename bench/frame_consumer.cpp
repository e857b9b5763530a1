// The application's end of a buffer queue: takes each frame and gives it back at once. Prints "ready" once
// the queue is set at the service and ends with its input.

#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <cstdio>

#include "ConsumerQueue.h"

namespace {

using namespace android;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;

struct GiveBack : BufferItemConsumer::FrameAvailableListener {
    explicit GiveBack(const sp<BufferItemConsumer>& consumer) : mConsumer(consumer) {}
    void onFrameAvailable(const BufferItem&) override {
        BufferItem item;
        if (mConsumer->acquireBuffer(&item, 0) == NO_ERROR) (void)mConsumer->releaseBuffer(item);
    }
    const sp<BufferItemConsumer> mConsumer;
};

}  // namespace

int main() {
    const ConsumerQueue queue(2);
    const sp<GiveBack> listener = new GiveBack(queue.consumer);
    queue.consumer->setFrameAvailableListener(listener);

    const sp<ICameraDesktop> service = ICameraDesktop::tryGetService("default", false);
    if (service == nullptr) return 1;
    if (!service->setSurface(ClientType::CLIENT_APP, queue.surface).isOk()) return 1;
    std::puts("ready");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
