// The application's end of a buffer queue: takes each frame and gives it back at once. Prints "ready" once
// the queue is set at the service and ends with its input.

#include <gui/BufferItemConsumer.h>
#include <gui/BufferQueue.h>
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>
#include <hardware/gralloc.h>
#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <cstdio>

namespace {

using namespace android;  // NOLINT(google-build-using-namespace)
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
    sp<IGraphicBufferProducer> producer;
    sp<IGraphicBufferConsumer> end;
    BufferQueue::createBufferQueue(&producer, &end);
    const sp<BufferItemConsumer> consumer = new BufferItemConsumer(end, GRALLOC_USAGE_SW_READ_OFTEN, 2);
    const sp<GiveBack> listener = new GiveBack(consumer);
    consumer->setFrameAvailableListener(listener);

    const sp<ICameraDesktop> service = ICameraDesktop::tryGetService("default", false);
    if (service == nullptr) return 1;
    const auto set = service->setSurface(ClientType::CLIENT_APP,
                                         new TWGraphicBufferProducer<HGraphicBufferProducer>(producer));
    if (!set.isOk()) return 1;
    std::puts("ready");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
