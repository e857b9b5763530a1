// An application's queue that answers anything, under the frames for the application and those for
// replacement.

#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

#include <string>

#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "FuzzTarget.h"
#include "ScriptedProducer.h"
#include "VelImgSubHelper.h"

using namespace android;

namespace {

using ClientType = FakeDesktopService::ClientType;

class HostileProducer : public ScriptedProducer {
  public:
    Bytes* input = nullptr;
    int lastSlot = -1;    // that was dequeued
    int queuedSlot = -1;  // -1 when none was since it was asked

    status_t dequeueBuffer(int* slot, sp<Fence>* fence, uint32_t, uint32_t, PixelFormat, uint64_t, uint64_t*,
                           FrameEventHistoryDelta*) override {
        static const sp<Fence> kFences[] = {Fence::NO_FENCE, nullptr, new Fence(-1)};
        lastSlot = *slot = input->below(4) != 0 ? static_cast<int>(input->below(9)) - 1 : input->next<int>();
        *fence = input->oneOf(kFences);
        return anyStatus();
    }
    status_t requestBuffer(int, sp<GraphicBuffer>* buffer) override {
        *buffer = input->below(4) != 0
                      ? new GraphicBuffer(1 + input->below(40), 1, HAL_PIXEL_FORMAT_RAW_OPAQUE, 1,
                                          GRALLOC_USAGE_SW_WRITE_OFTEN)
                      : nullptr;
        return anyStatus();
    }
    status_t queueBuffer(int slot, const QueueBufferInput&, QueueBufferOutput*) override {
        queuedSlot = slot;
        return anyStatus();
    }
    status_t cancelBuffer(int, const sp<Fence>&) override { return anyStatus(); }
    status_t connect(const sp<IProducerListener>&, int, bool, QueueBufferOutput*) override {
        return anyStatus();
    }
    status_t disconnect(int, DisconnectMode) override { return anyStatus(); }

  private:
    status_t anyStatus() {
        static constexpr status_t kStatuses[] = {0, 0, 0, 0, 1, 1, 2, 3, NO_INIT, DEAD_OBJECT, NO_MEMORY};
        return input->below(16) != 0 ? input->oneOf(kStatuses) : input->next<status_t>();
    }
};

// One way of the frames: what lends one and what queues it.
template <typename Lend, typename Queue>
void act(HostileProducer& producer, Lend lend, Queue queue) {
    const bool isLent = lend() != nullptr;
    const int slot = producer.lastSlot;
    require(!isLent || (slot >= 0 && slot < 7));
    producer.queuedSlot = -1;
    queue();
    require(!isLent || producer.queuedSlot == slot);
    producer.queuedSlot = -1;
    queue();
    require(producer.queuedSlot == -1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes input(data, size);
    const sp<HostileProducer> producer = new HostileProducer;
    producer->input = &input;
    const sp<FakeDesktopService> service = FakeDesktopService::start();
    const std::unique_ptr<VelChiDesktopHelper> helper = DesktopHelperTestAccess::create();
    const sp<HGraphicBufferProducer> surface = new TWGraphicBufferProducer<HGraphicBufferProducer>(producer);
    service->offerSurface(ClientType::CLIENT_APP, surface);
    require(
        helper->handleCommand(
            R"({"imgsub-configure-stream":{"version":"v1","image-width":16,"image-height":8,)"
            R"("hal-consumer-usage":-1,"hal-consumer-buffer-count":2,"hal-consumer-v4l2-format":"RAW_PRIVATE"}})") !=
        "PARSE_ERR");
    service->offerSurface(ClientType::CLIENT_IMG_SUB, surface);
    const std::shared_ptr<VelImgSubHelper> imgSub = std::atomic_load(&helper->mImgSubHelper);
    require(imgSub != nullptr);
    helper->connectProducer(16, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE);
    while (!input.empty()) {
        switch (const uint32_t stream = input.below(5); input.below(8)) {
            case 0:
                helper->disconnectProducer();
                break;
            case 1:
                imgSub->cancelImgSubFrames(stream);
                break;
            case 2:
            case 3:
            case 4:
                act(
                    *producer, [&] { return imgSub->imgSubGetOutputFrameToFill(stream); },
                    [&] { imgSub->imgSubQueueOutputFrame(stream, 1); });
                break;
            default:
                act(
                    *producer, [&] { return helper->getFrameToFill(); },
                    [&] { helper->queueFilledFrame(1); });
        }
    }
    return 0;
}
