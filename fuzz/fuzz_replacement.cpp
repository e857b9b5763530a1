// Frames of any size, format and header in the HAL's reader, and a media library that fails: what the HAL
// acquires is the newest readable replacement of its stream, or nothing.

#include <media/NdkImageReader.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <set>

#include "DesktopHelperTestAccess.h"
#include "FakeDesktopService.h"
#include "FuzzTarget.h"
#include "ImgSubHelperTestAccess.h"
#include "NextDefinition.h"
#include "ProducerSlots.h"
#include "ReplacementFrame.h"
#include "ScriptedProducer.h"
#include "VelImgSubHelper.h"

#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>
#include <gui/bufferqueue/1.0/WGraphicBufferProducer.h>

using namespace android;
using hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;

namespace {

int64_t gPausedNs = 0;               // pauses take no time, but the clocks count them
media_status_t gPlanes = AMEDIA_OK;  // what the next planes give
media_status_t gImages = AMEDIA_OK;  // and the next images
std::set<AImage*> gAcquired;         // and not deleted; unreadable ones stay in the reader
constexpr media_status_t kFailures[] = {AMEDIA_OK,
                                        AMEDIA_OK,
                                        AMEDIA_ERROR_UNKNOWN,
                                        AMEDIA_ERROR_INVALID_PARAMETER,
                                        AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED,
                                        AMEDIA_IMGREADER_CANNOT_LOCK_IMAGE};

}  // namespace

// In place of the libraries' own.
extern "C" int usleep(useconds_t length) {
    gPausedNs += length * int64_t{1000};
    return 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) {
    const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    const int64_t ns = now->tv_nsec + gPausedNs;
    *now = {now->tv_sec + static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    return result;
}

extern "C" media_status_t AImage_getPlaneData(const AImage* image, int plane, uint8_t** data, int* size) {
    if (gPlanes != AMEDIA_OK) return gPlanes;
    return nextDefinition<decltype(AImage_getPlaneData)>(__func__)(image, plane, data, size);
}

extern "C" media_status_t AImageReader_acquireNextImage(AImageReader* reader, AImage** image) {
    if (gImages != AMEDIA_OK) return gImages;
    const media_status_t status =
        nextDefinition<decltype(AImageReader_acquireNextImage)>(__func__)(reader, image);
    require(status != AMEDIA_OK || gAcquired.insert(*image).second);
    return status;
}

extern "C" void AImage_delete(AImage* image) {
    gAcquired.erase(image);
    nextDefinition<decltype(AImage_delete)>(__func__)(image);
}

namespace {

constexpr int32_t kFormat = AIMAGE_FORMAT_RAW_PRIVATE;
constexpr uint32_t kStreams = 4;
constexpr producer_slots::Log kNothing = {[] {}, [] {}, [](int) {},     [](status_t) {},
                                          [] {}, [] {}, [](status_t) {}};

class Substitution {
  public:
    explicit Substitution(Bytes& input) : mInput(input), mIsMerged(input.below(4) == 0) {
        static constexpr struct {
            int32_t width, height;
        } kImages[] = {{16, 8}, {3, 3}, {65536, 65536}, {-1, -1}, {1, 1}};
        const auto& image = input.oneOf(kImages);
        mWidth = static_cast<uint32_t>(image.width);
        mHeight = static_cast<uint32_t>(image.height);
        mRowBytes = replacement_frame::rowBytes(image.width, image.height);
        AImageReader* reader = nullptr;
        require(AImageReader_newWithUsage(static_cast<int32_t>(mRowBytes), 1, kFormat,
                                          AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN, 1 + input.below(6),
                                          &reader) == AMEDIA_OK);
        const sp<HGraphicBufferProducer> producer = mHelper->getIGraphicBufferProducer(reader);
        mInbound = new H2BGraphicBufferProducer(producer);
        require(mInbound->setDequeueTimeout(1) == NO_ERROR);  // ns; images that stay acquired take slots away
        producer_slots::connect(*mInbound);
        mImgSub = std::make_shared<VelImgSubHelper>(producer, reader, mRowBytes, 1, kFormat, mWidth, mHeight,
                                                    true, mIsMerged);
        mService->offerSurface(FakeDesktopService::ClientType::CLIENT_IMG_SUB,
                               new TWGraphicBufferProducer<HGraphicBufferProducer>(mOutbound));
    }

    void act() {
        const uint32_t stream = mInput.below(kStreams + 1);
        switch (mInput.below(8)) {
            case 0:
                gPlanes = mInput.oneOf(kFailures);
                gImages = mInput.oneOf(kFailures);
                break;
            case 1:
                mImgSub->cancelImgSubFrames(stream);
                break;
            case 2:
                mImgSub->imgSubReleaseFrame(stream, std::move(mHeld));
                mHeld = nullptr;
                break;
            case 3:
                mOutbound->onDequeue({1, static_cast<int>(stream)});
                (void)mImgSub->imgSubGetOutputFrameToFill(stream);
                break;
            case 4:
            case 5:
                return acquire(stream);
            default:
                sendFrame();
        }
    }

  private:
    void sendFrame() {
        static constexpr int32_t kOffsets[] = {0, 0, 0, 0, -16, 16, -1};
        const uint32_t width = mRowBytes + static_cast<uint32_t>(mInput.oneOf(kOffsets));
        const uint32_t height = mInput.below(8) == 0 ? 2 : 1;
        const producer_slots::BufferShape shape = {width, height, mInput.below(8) == 0 ? 1u : kFormat,
                                                   GRALLOC_USAGE_SW_WRITE_OFTEN};
        int32_t slot = -1;
        sp<GraphicBuffer> buffer;
        if (producer_slots::dequeue(*mInbound, shape, mBuffers, kNothing, slot, buffer) !=
            producer_slots::Dequeued::LENT) {
            return;
        }
        void* row = nullptr;
        require(buffer != nullptr && buffer->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &row) == NO_ERROR);
        const uint32_t index = mInput.below(4) != 0 ? mInput.below(kStreams) : mInput.next<uint32_t>();
        if (width >= mRowBytes)
            std::memcpy(static_cast<uint8_t*>(row) + indexOffset(), &index, sizeof(index));
        buffer->unlock();
        producer_slots::queue(mInbound, slot, width, height, 0, kNothing);
    }
    size_t indexOffset() const { return mRowBytes - 96 + 76; }

    void acquire(uint32_t stream) {
        const std::shared_ptr<AImage> before = mHeld;
        const sp<GraphicBuffer> buffer = mImgSub->imgSubAcquireFrame(stream, mHeld);
        gPausedNs = 0;
        require(buffer != nullptr || mHeld == before);
        if (buffer == nullptr || gPlanes != AMEDIA_OK) return;
        require(stream < kStreams && mHeld != nullptr);
        uint8_t* row = nullptr;
        int size = 0;
        uint32_t index = kStreams;
        require(AImage_getPlaneData(mHeld.get(), 0, &row, &size) == AMEDIA_OK);
        require(replacement_frame::readStreamIndex(row, static_cast<size_t>(size), mWidth, mHeight, index));
        require(index == stream || (mIsMerged && index > stream && index < kStreams));
    }

    Bytes& mInput;
    const bool mIsMerged;
    uint32_t mWidth = 0, mHeight = 0, mRowBytes = 0;
    const sp<FakeDesktopService> mService = FakeDesktopService::start();
    const std::unique_ptr<VelChiDesktopHelper> mHelper = DesktopHelperTestAccess::create();
    const sp<ScriptedProducer> mOutbound{new ScriptedProducer};
    sp<IGraphicBufferProducer> mInbound;
    producer_slots::CachedBuffers mBuffers;
    std::shared_ptr<VelImgSubHelper> mImgSub;
    std::shared_ptr<AImage> mHeld;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes input(data, size);
    {
        Substitution substitution(input);
        while (!input.empty())
            substitution.act();
    }
    while (!gAcquired.empty())
        AImage_delete(*gAcquired.begin());
    gPlanes = gImages = AMEDIA_OK;
    return 0;
}
