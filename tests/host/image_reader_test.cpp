#include <gtest/gtest.h>
#include <gui/IProducerListener.h>
#include <gui/Surface.h>
#include <media/NdkImageReader.h>

#include <future>
#include <vector>

#include "SignalFence.h"

using namespace android;

namespace {

using Producer = IGraphicBufferProducer;
constexpr int32_t kWidth = 4096;
constexpr int32_t kRawPrivate = AIMAGE_FORMAT_RAW_PRIVATE;

// A reader and, on the application's side, a producer of one-row frames.
class AnImageReader : public testing::Test {
  protected:
    AnImageReader() {
        ANativeWindow* window = nullptr;
        EXPECT_EQ(AImageReader_new(kWidth, 1, kRawPrivate, 3, &reader), AMEDIA_OK);
        EXPECT_EQ(AImageReader_getWindow(reader, &window), AMEDIA_OK);
        producer = static_cast<Surface*>(window)->getIGraphicBufferProducer();
        EXPECT_EQ(producer->connect(nullptr, NATIVE_WINDOW_API_CPU, false, &output), NO_ERROR);
        EXPECT_EQ(producer->setMaxDequeuedBufferCount(6), NO_ERROR);
    }
    ~AnImageReader() override {
        for (AImage* each : images)
            AImage_delete(each);
        AImageReader_delete(reader);
    }
    // A frame of that many rows, whose first byte is given.
    void frame(uint8_t firstByte, uint32_t width = kWidth, uint32_t rows = 1,
               PixelFormat format = kRawPrivate, const sp<Fence>& written = Fence::NO_FENCE,
               const Rect& crop = Rect()) {
        int slot = -1;
        sp<Fence> fence;
        sp<GraphicBuffer> buffer;
        void* pixels = nullptr;
        ASSERT_GE(producer->dequeueBuffer(&slot, &fence, width, rows, format, GRALLOC_USAGE_SW_WRITE_OFTEN,
                                          nullptr, nullptr),
                  NO_ERROR);
        ASSERT_EQ(producer->requestBuffer(slot, &buffer), NO_ERROR);
        ASSERT_EQ(buffer->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &pixels), NO_ERROR);
        *static_cast<uint8_t*>(pixels) = firstByte;
        ASSERT_EQ(buffer->unlock(), NO_ERROR);
        ASSERT_EQ(
            producer->queueBuffer(slot, {0, false, HAL_DATASPACE_UNKNOWN, crop, 0, 0, written}, &output),
            NO_ERROR);
    }
    // The image becomes the current one, and is deleted at the end.
    media_status_t acquire(media_status_t (*how)(AImageReader*, AImage**)) {
        const media_status_t status = how(reader, &image);
        if (status == AMEDIA_OK) images.push_back(image);
        return status;
    }
    media_status_t next() { return acquire(AImageReader_acquireNextImage); }
    media_status_t latest() { return acquire(AImageReader_acquireLatestImage); }
    int firstByte() { return AImage_getPlaneData(image, 0, &data, &length) == AMEDIA_OK ? data[0] : -1; }

    AImageReader* reader = nullptr;
    sp<Producer> producer;
    Producer::QueueBufferOutput output;
    AImage* image = nullptr;
    std::vector<AImage*> images;
    uint8_t* data = nullptr;
    int length = 0;
};

TEST_F(AnImageReader, GivesTheOldestOrSkipsToTheLatestFrameWhileItHasPlaces) {
    image = reinterpret_cast<AImage*>(1);
    EXPECT_EQ(next(), AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE);
    EXPECT_EQ(image, nullptr);
    EXPECT_EQ(latest(), AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE);
    for (uint8_t i = 1; i <= 4; i++)
        frame(i);
    ASSERT_EQ(latest(), AMEDIA_OK);
    EXPECT_EQ(firstByte(), 4) << "older frames are dropped";
    for (uint8_t i = 5; i <= 7; i++)
        frame(i);
    ASSERT_EQ(next(), AMEDIA_OK);
    EXPECT_EQ(firstByte(), 5);
    ASSERT_EQ(latest(), AMEDIA_OK);
    EXPECT_EQ(firstByte(), 6) << "one place only: the oldest";
    EXPECT_EQ(latest(), AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED);
    EXPECT_EQ(next(), AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED);
    EXPECT_EQ(image, nullptr);
    AImage_delete(images.back());
    images.pop_back();
    ASSERT_EQ(next(), AMEDIA_OK);
    EXPECT_EQ(firstByte(), 7) << "and the rest stays queued";
}

TEST_F(AnImageReader, GivesARefusedFormatBackAndLosesAPlaceToACropOffTheOrigin) {
    for (int i = 0; i < 4; i++) {
        frame(1, 64, 1, HAL_PIXEL_FORMAT_RGBA_8888);
        EXPECT_EQ(next(), AMEDIA_ERROR_UNKNOWN);
    }
    frame(1, kWidth, 1, kRawPrivate, Fence::NO_FENCE, Rect(1, 0, 10, 1));
    EXPECT_EQ(next(), AMEDIA_ERROR_UNKNOWN);
    frame(1);
    frame(1);
    EXPECT_EQ(next(), AMEDIA_OK);
    EXPECT_EQ(next(), AMEDIA_OK);
    EXPECT_EQ(next(), AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED) << "three places, one lost, two out";
}

TEST_F(AnImageReader, WaitsForTheFramesFenceAndGivesTheOnePlaneOfOneRow) {
    SignalFence written;
    frame(1, 16, 1, kRawPrivate, written.fence());
    std::future<media_status_t> waiting = std::async(std::launch::async, [&] { return next(); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(30)));
    written.signal();
    ASSERT_EQ(waiting.get(), AMEDIA_OK) << "another size than the reader's is no reason to refuse";
    EXPECT_EQ(firstByte(), 1);
    EXPECT_EQ(length, 16) << "the length is the producer's width";
    frame(1, 64, 2);
    ASSERT_EQ(next(), AMEDIA_OK);
    EXPECT_EQ(firstByte(), -1) << "two rows";
}

}  // namespace
