// The frame paths against the bare calls of the same queue and the same reader. Only the path itself is
// timed: the consumer's turn stands outside.

#include <benchmark/benchmark.h>
#include <gui/BufferItemConsumer.h>
#include <gui/BufferQueue.h>
#include <hardware/gralloc.h>
#include <hidl_host/LocalServices.h>
#include <media/NdkImageReader.h>
#include <ui/Fence.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "AllocationCounter.h"
#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "RatioReporter.h"
#include "ReplacementFrame.h"
#include "VelImgSubHelper.h"

#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

namespace {

using namespace android;
using hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using korvanta::hardware::camera::desktop::V2_0::ClientType;
using Wrapper = TWGraphicBufferProducer<HGraphicBufferProducer>;

constexpr uint32_t kImageWidth = 640;
constexpr uint32_t kImageHeight = 480;
constexpr uint32_t kRowBytes = 460896;
constexpr uint32_t kStreamIndexOffset = kRowBytes - 96 + 76;
constexpr int32_t kFormat = AIMAGE_FORMAT_RAW_PRIVATE;
constexpr int kApi = NATIVE_WINDOW_API_CAMERA;

void require(bool condition) {
    if (!condition) std::abort();
}

// Runs a turn once an iteration: before() and after() are the other side's, only path() is timed and its
// allocations counted.
template <typename Before, typename Path, typename After>
void measure(benchmark::State& state, Before before, Path path, After after) {
    AllocationCounter allocations;
    size_t counted = 0;
    for (auto _ : state) {
        before();
        const size_t allocationsAtStart = allocations.count();
        const auto start = std::chrono::steady_clock::now();
        path();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        counted += allocations.count() - allocationsAtStart;
        state.SetIterationTime(elapsed.count());
        after();
    }
    state.counters["allocs"] = static_cast<double>(counted) / static_cast<double>(state.iterations());
}

void nothing() {}

// A queue of the application with its consumer, as the service hands it out.
struct Queue {
    Queue() {
        sp<IGraphicBufferProducer> local;
        sp<IGraphicBufferConsumer> end;
        BufferQueue::createBufferQueue(&local, &end);
        consumer = new BufferItemConsumer(end, GRALLOC_USAGE_SW_READ_OFTEN, 2);
        handle = new Wrapper(local);
    }
    void consume() {
        BufferItem item;
        require(consumer->acquireBuffer(&item, 0) == NO_ERROR);
        require(consumer->releaseBuffer(item) == NO_ERROR);
    }
    // Sends frames through the queue; the first ones, which allocate its buffers, are not measured.
    template <typename Frame>
    void measureFrames(benchmark::State& state, Frame frame) {
        const auto consumeIt = [this] { consume(); };
        for (int i = 0; i < 8; ++i) {
            frame();
            consume();
        }
        measure(state, nothing, frame, consumeIt);
    }
    sp<HGraphicBufferProducer> handle;
    sp<BufferItemConsumer> consumer;
};

sp<IGraphicBufferProducer> connected(const sp<HGraphicBufferProducer>& handle) {
    const sp<IGraphicBufferProducer> producer = new H2BGraphicBufferProducer(handle);
    IGraphicBufferProducer::QueueBufferOutput output;
    require(producer->connect(nullptr, kApi, false, &output) == NO_ERROR);
    require(producer->setMaxDequeuedBufferCount(6) == NO_ERROR);
    return producer;
}

// What no frame path can do without.
void dequeueAndQueue(IGraphicBufferProducer& producer, uint32_t width, uint32_t height, int32_t format,
                     uint64_t usage, sp<GraphicBuffer>* fetched = nullptr) {
    int slot = -1;
    sp<Fence> fence;
    uint64_t age = 0;
    const status_t status =
        producer.dequeueBuffer(&slot, &fence, width, height, format, usage, &age, nullptr);
    if (status == IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION) {
        sp<GraphicBuffer> buffer;
        require(producer.requestBuffer(slot, &buffer) == NO_ERROR);
        if (fetched != nullptr) *fetched = buffer;
    }
    const IGraphicBufferProducer::QueueBufferInput input(0, false, HAL_DATASPACE_STANDARD_BT601_625,
                                                         Rect(width, height), 1, 0, Fence::NO_FENCE);
    IGraphicBufferProducer::QueueBufferOutput output;
    require(producer.queueBuffer(slot, input, &output) == NO_ERROR);
}

// The helper with a service in the same process.
struct Desktop {
    Desktop() : service(FakeDesktopService::start()), helper(DesktopHelperTestAccess::create()) {}
    ~Desktop() {
        helper.reset();
        vel::host::clearLocalServices();
    }
    sp<FakeDesktopService> service;
    std::unique_ptr<VelChiDesktopHelper> helper;
};

void appFrameProduct(benchmark::State& state) {
    Desktop desktop;
    Queue queue;
    desktop.service->offerSurface(ClientType::CLIENT_APP, queue.handle);
    require(desktop.helper->connectProducer(kImageWidth, kImageHeight, HAL_PIXEL_FORMAT_YCBCR_420_888));
    queue.measureFrames(state, [&] {
        require(desktop.helper->getFrameToFill() != nullptr);
        desktop.helper->queueFilledFrame(0);
    });
}

void appFrameFloor(benchmark::State& state) {
    Queue queue;
    const sp<IGraphicBufferProducer> producer = connected(queue.handle);
    queue.measureFrames(state, [&] {
        dequeueAndQueue(*producer, kImageWidth, kImageHeight, HAL_PIXEL_FORMAT_YCBCR_420_888,
                        GRALLOC_USAGE_SW_WRITE_RARELY);
    });
}

// A reader as the configuration makes it, and a helper that owns it and is connected to the application's
// queue.
struct Substitution {
    Substitution() {
        require(AImageReader_newWithUsage(kRowBytes, 1, kFormat, AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN, 12,
                                          &reader) == AMEDIA_OK);
        handle = desktop.helper->getIGraphicBufferProducer(reader);
        inbound = connected(handle);
    }
    void makeHelper() {
        helper = std::make_shared<VelImgSubHelper>(handle, reader, kRowBytes, 1, kFormat, kImageWidth,
                                                   kImageHeight, true, false);
        desktop.service->offerSurface(ClientType::CLIENT_IMG_SUB, outbound.handle);
        sendOutbound();  // connects
        outbound.consume();
    }
    void sendOutbound() {
        require(helper->imgSubGetOutputFrameToFill(0) != nullptr);
        helper->imgSubQueueOutputFrame(0, 0);
    }
    // The application's turn: a replacement of stream 0, whose index word is what a fresh buffer holds.
    void sendReplacement() { dequeueAndQueue(*inbound, kRowBytes, 1, kFormat, GRALLOC_USAGE_SW_WRITE_OFTEN); }

    Desktop desktop;
    Queue outbound;
    AImageReader* reader = nullptr;
    sp<HGraphicBufferProducer> handle;
    sp<IGraphicBufferProducer> inbound;
    std::shared_ptr<VelImgSubHelper> helper;
};

void outboundProduct(benchmark::State& state) {
    Substitution substitution;
    substitution.makeHelper();
    substitution.outbound.measureFrames(state, [&] { substitution.sendOutbound(); });
}

void outboundFloor(benchmark::State& state) {
    Queue queue;
    const sp<IGraphicBufferProducer> producer = connected(queue.handle);
    queue.measureFrames(
        state, [&] { dequeueAndQueue(*producer, kRowBytes, 1, kFormat, GRALLOC_USAGE_SW_WRITE_OFTEN); });
}

void acquireProduct(benchmark::State& state) {
    Substitution substitution;
    substitution.makeHelper();
    sp<GraphicBuffer> buffer;
    const auto acquire = [&] {
        std::shared_ptr<AImage> image;
        buffer = substitution.helper->imgSubAcquireFrame(0, image);
        substitution.helper->imgSubReleaseFrame(0, std::move(image));
    };
    measure(
        state, [&] { substitution.sendReplacement(); }, acquire, [&] { require(buffer != nullptr); });
}

// Empties the reader, reads the index word and takes the buffer of each image, and gives the one before it
// back.
void acquireFloor(benchmark::State& state) {
    Substitution substitution;
    sp<GraphicBuffer> buffer;
    AImage* held = nullptr;
    const auto acquire = [&] {
        AImage* image = nullptr;
        while (AImageReader_acquireNextImage(substitution.reader, &image) == AMEDIA_OK) {
            uint8_t* row = nullptr;
            int byteCount = 0;
            require(AImage_getPlaneData(image, 0, &row, &byteCount) == AMEDIA_OK);
            uint32_t streamIndex = 0;
            std::memcpy(&streamIndex, row + kStreamIndexOffset, sizeof(streamIndex));
            require(streamIndex == 0);
            AHardwareBuffer* hardwareBuffer = nullptr;
            require(AImage_getHardwareBuffer(image, &hardwareBuffer) == AMEDIA_OK);
            buffer = GraphicBuffer::fromAHardwareBuffer(hardwareBuffer);
            AImage_delete(held);
            held = image;
        }
    };
    measure(
        state, [&] { substitution.sendReplacement(); }, acquire, [&] { require(buffer != nullptr); });
    AImage_delete(held);
    AImageReader_delete(substitution.reader);
}

BENCHMARK(appFrameProduct)->Name("frame to the application/product")->UseManualTime();
BENCHMARK(appFrameFloor)->Name("frame to the application/floor")->UseManualTime();
BENCHMARK(outboundProduct)->Name("frame out for replacement/product")->UseManualTime();
BENCHMARK(outboundFloor)->Name("frame out for replacement/floor")->UseManualTime();
BENCHMARK(acquireProduct)->Name("replacement acquired/product")->UseManualTime();
BENCHMARK(acquireFloor)->Name("replacement acquired/floor")->UseManualTime();
const bool kAimsAdded =
    (addAim({"frame to the application", "real", 1.05}), addAim({"frame out for replacement", "real", 1.05}),
     addAim({"replacement acquired", "real", 1.10}), true);

}  // namespace
