// The frame paths against the calls of the same queue and the same reader: bare, and as a floor with what the
// paths' interface cannot do without: a reference to the buffer that is lent, one lock a call where streams
// share the queue, an image that is owned in common, the time from which a wait counts. Only the path itself
// is timed: the consumer's turn stands outside.

#include <benchmark/benchmark.h>
#include <hardware/gralloc.h>
#include <hidl_host/LocalServices.h>
#include <media/NdkImageReader.h>
#include <system/window.h>
#include <ui/Fence.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <utility>

#include "AllocationCounter.h"
#include "ConsumerQueue.h"
#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "RatioReporter.h"
#include "ReplacementFrame.h"
#include "VelImgSubHelper.h"

#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>

namespace {

using namespace android;
using hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;
using korvanta::hardware::camera::desktop::V2_0::ClientType;

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

// A queue of the application with its consumer.
struct Queue : ConsumerQueue {
    Queue() : ConsumerQueue(2) {}
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
};

sp<IGraphicBufferProducer> connected(const sp<HGraphicBufferProducer>& handle) {
    const sp<IGraphicBufferProducer> producer = new H2BGraphicBufferProducer(handle);
    IGraphicBufferProducer::QueueBufferOutput output;
    require(producer->connect(nullptr, kApi, false, &output) == NO_ERROR);
    require(producer->setMaxDequeuedBufferCount(6) == NO_ERROR);
    return producer;
}

// A slot's buffer, fetched when the queue has a new one for it.
struct Lent {
    int slot = -1;
    sp<GraphicBuffer> fetched;
};

Lent dequeue(IGraphicBufferProducer& producer, uint32_t width, uint32_t height, int32_t format,
             uint64_t usage) {
    Lent lent;
    sp<Fence> fence;
    uint64_t age = 0;
    const status_t status =
        producer.dequeueBuffer(&lent.slot, &fence, width, height, format, usage, &age, nullptr);
    if (status == IGraphicBufferProducer::BUFFER_NEEDS_REALLOCATION)
        require(producer.requestBuffer(lent.slot, &lent.fetched) == NO_ERROR);
    return lent;
}

void queue(IGraphicBufferProducer& producer, int slot, uint32_t width, uint32_t height) {
    const IGraphicBufferProducer::QueueBufferInput input(0, false, HAL_DATASPACE_STANDARD_BT601_625,
                                                         Rect(width, height), 1, 0, Fence::NO_FENCE);
    IGraphicBufferProducer::QueueBufferOutput output;
    require(producer.queueBuffer(slot, input, &output) == NO_ERROR);
}

// The calls alone: nobody holds the buffer between them.
void dequeueAndQueue(IGraphicBufferProducer& producer, uint32_t width, uint32_t height, int32_t format,
                     uint64_t usage) {
    const Lent lent = dequeue(producer, width, height, format, usage);
    queue(producer, lent.slot, width, height);
}

// Holds the buffer while it is lent, as the one who fills it must.
class SlotCache {
  public:
    sp<GraphicBuffer> buffer(const Lent& lent) {
        require(lent.slot >= 0 && static_cast<size_t>(lent.slot) < std::size(mBuffers));
        if (lent.fetched != nullptr) mBuffers[lent.slot] = lent.fetched;
        return mBuffers[lent.slot];
    }

  private:
    sp<GraphicBuffer> mBuffers[7];
};

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
    desktop.service->offerSurface(ClientType::CLIENT_APP, queue.surface);
    require(desktop.helper->connectProducer(kImageWidth, kImageHeight, HAL_PIXEL_FORMAT_YCBCR_420_888));
    queue.measureFrames(state, [&] {
        require(desktop.helper->getFrameToFill() != nullptr);
        desktop.helper->queueFilledFrame(0);
    });
}

void appFrameFloor(benchmark::State& state) {
    Queue frames;
    SlotCache cache;
    const sp<IGraphicBufferProducer> producer = connected(frames.surface);
    frames.measureFrames(state, [&] {
        const Lent lent = dequeue(*producer, kImageWidth, kImageHeight, HAL_PIXEL_FORMAT_YCBCR_420_888,
                                  GRALLOC_USAGE_SW_WRITE_RARELY);
        const sp<GraphicBuffer> buffer = cache.buffer(lent);
        require(buffer != nullptr);
        queue(*producer, lent.slot, kImageWidth, kImageHeight);
    });
}

void appFrameBare(benchmark::State& state) {
    Queue frames;
    const sp<IGraphicBufferProducer> producer = connected(frames.surface);
    frames.measureFrames(state, [&] {
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
        desktop.service->offerSurface(ClientType::CLIENT_IMG_SUB, outbound.surface);
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
    Queue frames;
    SlotCache cache;
    std::mutex lock;
    const sp<IGraphicBufferProducer> producer = connected(frames.surface);
    frames.measureFrames(state, [&] {
        Lent lent;
        sp<GraphicBuffer> buffer;
        {
            std::lock_guard<std::mutex> locked(lock);
            lent = dequeue(*producer, kRowBytes, 1, kFormat, GRALLOC_USAGE_SW_WRITE_OFTEN);
            buffer = cache.buffer(lent);
        }
        require(buffer != nullptr);
        std::lock_guard<std::mutex> locked(lock);
        queue(*producer, lent.slot, kRowBytes, 1);
    });
}

void outboundBare(benchmark::State& state) {
    Queue frames;
    const sp<IGraphicBufferProducer> producer = connected(frames.surface);
    frames.measureFrames(
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

// Empties the reader and reads the index word of each image, which take() then owns; returns the buffer of
// the last one.
template <typename Take>
sp<GraphicBuffer> drain(AImageReader* reader, Take take) {
    sp<GraphicBuffer> buffer;
    AImage* image = nullptr;
    while (AImageReader_acquireNextImage(reader, &image) == AMEDIA_OK) {
        uint8_t* row = nullptr;
        int byteCount = 0;
        require(AImage_getPlaneData(image, 0, &row, &byteCount) == AMEDIA_OK);
        uint32_t streamIndex = 0;
        std::memcpy(&streamIndex, row + kStreamIndexOffset, sizeof(streamIndex));
        require(streamIndex == 0);
        AHardwareBuffer* hardwareBuffer = nullptr;
        require(AImage_getHardwareBuffer(image, &hardwareBuffer) == AMEDIA_OK);
        buffer = GraphicBuffer::fromAHardwareBuffer(hardwareBuffer);
        take(image);
    }
    return buffer;
}

struct AImageDeleter {
    void operator()(AImage* image) const { AImage_delete(image); }
};

// The newest image and the one in use are kept; the HAL has a share of it for as long as it uses it.
void acquireFloor(benchmark::State& state) {
    Substitution substitution;
    std::mutex lock;
    sp<GraphicBuffer> buffer;
    std::shared_ptr<AImage> newest;
    std::shared_ptr<AImage> held;
    const auto acquire = [&] {
        std::shared_ptr<AImage> used;
        std::lock_guard<std::mutex> locked(lock);
        benchmark::DoNotOptimize(std::chrono::system_clock::now());
        buffer = drain(substitution.reader, [&](AImage* image) { newest.reset(image, AImageDeleter()); });
        used = newest;
        held = newest;
    };
    measure(
        state, [&] { substitution.sendReplacement(); }, acquire, [&] { require(buffer != nullptr); });
    newest = nullptr;
    held = nullptr;
    AImageReader_delete(substitution.reader);
}

// Gives the image before back for each that comes.
void acquireBare(benchmark::State& state) {
    Substitution substitution;
    sp<GraphicBuffer> buffer;
    AImage* held = nullptr;
    const auto acquire = [&] {
        buffer =
            drain(substitution.reader, [&](AImage* image) { AImage_delete(std::exchange(held, image)); });
    };
    measure(
        state, [&] { substitution.sendReplacement(); }, acquire, [&] { require(buffer != nullptr); });
    AImage_delete(held);
    AImageReader_delete(substitution.reader);
}

bool registerAll() {
    using Run = void (*)(benchmark::State&);
    struct Subject {
        std::string name;
        double aim;
        Run product, floor, bare;
    };
    for (const Subject& subject :
         {Subject{"frame to the application", 1.05, appFrameProduct, appFrameFloor, appFrameBare},
          Subject{"frame out for replacement", 1.05, outboundProduct, outboundFloor, outboundBare},
          Subject{"replacement acquired", 1.10, acquireProduct, acquireFloor, acquireBare}}) {
        for (const auto& [name, run] : {std::pair("/product", subject.product),
                                        std::pair("/floor", subject.floor), std::pair("/bare", subject.bare)})
            benchmark::RegisterBenchmark((subject.name + name).c_str(), run)->UseManualTime();
        addAim({subject.name, "real", subject.aim});
        addAim({subject.name, "real", kNoAim, "product", "bare"});
    }
    return true;
}

const bool kRegistered = registerAll();

}  // namespace
