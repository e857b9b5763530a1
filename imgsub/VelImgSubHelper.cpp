#include "VelImgSubHelper.h"

#include <hardware/gralloc.h>
#include <media/NdkImageReader.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "DesktopHelperLink.h"
#include "ProducerSlots.h"
#include "ReplacementFrame.h"
#include "VelLog.h"

// Last: a platform header that brings many names.
#include <gui/bufferqueue/1.0/H2BGraphicBufferProducer.h>

using android::GraphicBuffer;
using android::sp;
using android::hardware::graphics::bufferqueue::V1_0::utils::H2BGraphicBufferProducer;

namespace {

constexpr char kLogTag[] = "VelImgSubHelper";

constexpr int32_t kNoSlot = -1;
constexpr int64_t kReplacementWaitMs = 101;
constexpr useconds_t kPollIntervalUs = 2000;
// More than a reader can hold at once, so that an application which is faster than the drain cannot keep the
// lock.
constexpr int kMaxImagesPerDrain = 64;

constexpr producer_slots::Log kLog = {
    /*slotsExhausted=*/[] { VEL_LOGE("request imgsub dequeue failed, max slots reached"); },
    /*requestFailed=*/[] { VEL_LOGE("request imgsub buffer failed"); },
    /*reallocated=*/[](int slot) { VEL_LOGD("Got re-alloc request for imgsub slot %d", slot); },
    /*dequeueFailed=*/
    [](android::status_t status) { VEL_LOGE("request imgsub dequeue failed with %d", status); },
    /*fenceLate=*/[] { VEL_LOGW("imgsub Fence hasn't been signaled yet"); },
    /*queueFailed=*/[] { VEL_LOGE("queue buffer failed imgsub"); },
    /*disconnectFailed=*/
    [](android::status_t status) { VEL_LOGE("Unable to disconnect imgsub producer, %d", status); },
};

// Gives an image back to its reader; knows nothing of the helper, which it may outlive.
struct AImageDeleter {
    void operator()(AImage* image) const { AImage_delete(image); }
};

// The time since its making. The wall clock measures the wait and the steady one bounds it: a wall clock that
// is set back must not prolong it.
class WaitTime {
  public:
    int64_t elapsedMs() const { return std::max(msSince(mWallStart), msSince(mSteadyStart)); }

  private:
    template <typename TimePoint>
    static int64_t msSince(TimePoint start) {
        using std::chrono::milliseconds;
        return std::chrono::duration_cast<milliseconds>(TimePoint::clock::now() - start).count();
    }

    const std::chrono::system_clock::time_point mWallStart = std::chrono::system_clock::now();
    const std::chrono::steady_clock::time_point mSteadyStart = std::chrono::steady_clock::now();
};

}  // namespace

VelImgSubHelper::VelImgSubHelper(const sp<HidlProducer>& readerProducer, AImageReader* reader,
                                 uint32_t outputWidth, uint32_t outputHeight, uint32_t outputFormat,
                                 uint32_t imageWidth, uint32_t imageHeight, bool appConnected,
                                 bool mergeStreams)
    : mReaderProducer(readerProducer),
      mImageReader(reader),
      mOutputWidth(outputWidth),
      mOutputHeight(outputHeight),
      mOutputFormat(outputFormat),
      mImageWidth(imageWidth),
      mImageHeight(imageHeight),
      mImgSubAppConnected(appConnected),
      mMergeStreams(mergeStreams) {
    std::fill(std::begin(mDequeuedSlots), std::end(mDequeuedSlots), kNoSlot);
    VEL_LOGD("%s: constuctor called. Line: %d", "VelImgSubHelper", __LINE__);
    mHelper = desktop_helper_link::instance();
}

VelImgSubHelper::~VelImgSubHelper() {
    VEL_LOGD("%s: destructor called. Line: %d", "~VelImgSubHelper", __LINE__);
    disconnectImgSubProducer_locked();
    mReaderProducer = nullptr;
    std::fill(std::begin(mReceivedImages), std::end(mReceivedImages), nullptr);
    std::fill(std::begin(mHeldImages), std::end(mHeldImages), nullptr);
    if (mImageReader != nullptr) AImageReader_delete(mImageReader);
}

bool VelImgSubHelper::connectImgSubProducer_locked() {
    VEL_LOGD("%s: called. Line: %d", "connectImgSubProducer_locked", __LINE__);
    if (!mImgSubAppConnected || mReaderProducer == nullptr) return false;
    if (mImgSubProducer != nullptr) return true;

    const sp<HidlProducer> surface = desktop_helper_link::fetchImgSubSurface(*mHelper);
    // A configuration that replaced this object during the call has set the surface to its own reader.
    if (surface == nullptr || !mImgSubAppConnected) return false;
    if (surface == mReaderProducer) {
        // What the service was given for the application to fill, not yet replaced by the application's own.
        VEL_LOGD("%s: No app surface yet provided. Line: %d", "connectImgSubProducer_locked", __LINE__);
        return false;
    }
    mImgSubProducer = new H2BGraphicBufferProducer(surface);
    VEL_LOGD("mImgSubProducer: %p", static_cast<void*>(mImgSubProducer.get()));
    producer_slots::connect(*mImgSubProducer);
    return true;
}

void VelImgSubHelper::disconnectImgSubProducer_locked() {
    VEL_LOGD("%s: called. Line: %d", "disconnectImgSubProducer_locked", __LINE__);
    producer_slots::disconnect(mImgSubProducer, kLog);
}

sp<GraphicBuffer> VelImgSubHelper::imgSubGetOutputFrameToFill(uint32_t streamIndex) {
    if (streamIndex >= kStreamCount) return nullptr;

    std::lock_guard<std::mutex> lock(mLock);
    mMaxStreamIndex = std::max(mMaxStreamIndex, streamIndex);
    if (!mImgSubAppConnected) return nullptr;
    if (mImgSubProducer == nullptr) connectImgSubProducer_locked();
    if (mImgSubProducer == nullptr) return nullptr;

    sp<GraphicBuffer> buffer;
    const producer_slots::BufferShape shape = {mOutputWidth, mOutputHeight, mOutputFormat,
                                               GRALLOC_USAGE_SW_WRITE_OFTEN};
    const producer_slots::Dequeued outcome = producer_slots::dequeue(
        *mImgSubProducer, shape, mImgSubBuffers, kLog, mDequeuedSlots[streamIndex], buffer);
    if (outcome == producer_slots::Dequeued::QUEUE_FAILED) disconnectImgSubProducer_locked();
    return buffer;
}

void VelImgSubHelper::imgSubQueueOutputFrame(uint32_t streamIndex, int64_t timestamp) {
    if (streamIndex >= kStreamCount) return;

    std::lock_guard<std::mutex> lock(mLock);
    if (!mImgSubAppConnected || mImgSubProducer == nullptr) return;
    int32_t& slot = mDequeuedSlots[streamIndex];
    if (slot == kNoSlot) return;
    producer_slots::queue(mImgSubProducer, slot, mOutputWidth, mOutputHeight, timestamp, kLog);
    slot = kNoSlot;
}

void VelImgSubHelper::cancelImgSubFrames(uint32_t streamIndex) {
    VEL_LOGD("%s: called. Line: %d", "cancelImgSubFrames", __LINE__);
    if (streamIndex >= kStreamCount) return;

    std::lock_guard<std::mutex> lock(mLock);
    if (!mImgSubAppConnected || mImgSubProducer == nullptr) return;
    producer_slots::reset(*mImgSubProducer);
    mDequeuedSlots[streamIndex] = kNoSlot;
    std::fill(std::begin(mReceivedImages), std::end(mReceivedImages), nullptr);
    std::fill(std::begin(mHeldImages), std::end(mHeldImages), nullptr);
    AImage* newest = nullptr;
    if (mImageReader != nullptr && AImageReader_acquireLatestImage(mImageReader, &newest) == AMEDIA_OK)
        AImage_delete(newest);
}

sp<GraphicBuffer> VelImgSubHelper::imgSubAcquireFrame(uint32_t streamIndex,
                                                      std::shared_ptr<AImage>& outImage) {
    if (streamIndex >= kStreamCount) return nullptr;

    std::unique_lock<std::mutex> lock(mLock);
    if (mMergeStreams && streamIndex < mMaxStreamIndex && mReceivedImages[mMaxStreamIndex] != nullptr)
        return handOut_locked(streamIndex, mReceivedImages[mMaxStreamIndex], outImage);

    const std::shared_ptr<AImage>& received = mReceivedImages[streamIndex];
    const std::shared_ptr<AImage>& held = mHeldImages[streamIndex];
    const auto isNew = [&] { return received != nullptr && received != held; };
    const WaitTime waitTime;
    do {
        if (!mayWaitForImage_locked()) return nullptr;
        const int32_t readerStatus = drainReader_locked();
        if (isNew() || readerStatus != AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE) break;
        const int64_t elapsedMs = waitTime.elapsedMs();
        if (elapsedMs >= kReplacementWaitMs) {
            VEL_LOGD("Timed out waiting to retrieve replacement frame: %lld ms",
                     static_cast<long long>(elapsedMs));
            break;
        }
        lock.unlock();
        usleep(kPollIntervalUs);
        lock.lock();
    } while (!isNew());
    if (received == nullptr) {
        VEL_LOGE("failed to retrieve replacement frame");
        return nullptr;
    }
    return handOut_locked(streamIndex, received, outImage);
}

bool VelImgSubHelper::mayWaitForImage_locked() const {
    if (!mImgSubAppConnected || mImgSubProducer == nullptr) return false;
    if (mImageReader != nullptr) return true;
    VEL_LOGE("%s failed: invalid AImageReader", "imgSubAcquireFrame");
    return false;
}

// Files every image that waits in the reader; the status that ended it, NO_BUFFER_AVAILABLE when it was
// emptied.
int32_t VelImgSubHelper::drainReader_locked() {
    for (int count = 0; count < kMaxImagesPerDrain; ++count) {
        AImage* image = nullptr;
        const media_status_t status = AImageReader_acquireNextImage(mImageReader, &image);
        if (status != AMEDIA_OK) return status;
        fileImage_locked(image);
    }
    return AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE;
}

// Takes the image over. One whose plane cannot be read stays acquired on purpose: its reader has no read
// access, or its frame is not one row high. Once such images fill the reader, every wait ends at once.
void VelImgSubHelper::fileImage_locked(AImage* image) {
    uint8_t* row = nullptr;
    int byteCount = 0;
    if (AImage_getPlaneData(image, 0, &row, &byteCount) != AMEDIA_OK) return;

    std::shared_ptr<AImage> owned(image, AImageDeleter());
    uint32_t streamIndex = kStreamCount;
    const bool isReadable =
        byteCount >= 0 && replacement_frame::readStreamIndex(row, static_cast<size_t>(byteCount), mImageWidth,
                                                             mImageHeight, streamIndex);
    if (isReadable && streamIndex < kStreamCount) mReceivedImages[streamIndex] = std::move(owned);
}

sp<GraphicBuffer> VelImgSubHelper::handOut_locked(uint32_t streamIndex, const std::shared_ptr<AImage>& image,
                                                  std::shared_ptr<AImage>& outImage) {
    AHardwareBuffer* hardwareBuffer = nullptr;
    if (AImage_getHardwareBuffer(image.get(), &hardwareBuffer) != AMEDIA_OK || hardwareBuffer == nullptr) {
        VEL_LOGE("failed to acquire hw buffer, failed to retrieve replacement frame");
        return nullptr;
    }
    outImage = image;
    mHeldImages[streamIndex] = image;
    return GraphicBuffer::fromAHardwareBuffer(hardwareBuffer);
}

// Dropping the copy is the release.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void VelImgSubHelper::imgSubReleaseFrame(uint32_t /*streamIndex*/, std::shared_ptr<AImage> /*image*/) {}

void VelImgSubHelper::setImgSubAppConnected(bool connected) {
    mImgSubAppConnected = connected;
}
