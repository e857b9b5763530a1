#include <gtest/gtest.h>
#include <gui/IProducerListener.h>
#include <gui/Surface.h>
#include <media/NdkImageReader.h>

#include <future>
#include <thread>
#include <vector>

#include "SignalFence.h"

using namespace android;

namespace {

using Producer = IGraphicBufferProducer;
constexpr int32_t kWidth = 4096;
constexpr int32_t kRawPrivate = AIMAGE_FORMAT_RAW_PRIVATE;
constexpr auto kBriefly = std::chrono::milliseconds(30);

AImageReader* makeReader(int32_t maxImages) {
    AImageReader* reader = nullptr;
    EXPECT_EQ(AImageReader_new(kWidth, 1, kRawPrivate, maxImages, &reader), AMEDIA_OK);
    return reader;
}

// A reader and, on the application's side, a producer of one-row frames.
class AnImageReader : public testing::Test {
  protected:
    void make(int32_t maxImages) {
        reader = makeReader(maxImages);
        ANativeWindow* window = nullptr;
        ASSERT_EQ(AImageReader_getWindow(reader, &window), AMEDIA_OK);
        const sp<Surface> surface = static_cast<Surface*>(window);
        producer = surface->getIGraphicBufferProducer();
        EXPECT_EQ(producer->connect(nullptr, NATIVE_WINDOW_API_CPU, false, &output), NO_ERROR);
        EXPECT_EQ(producer->setMaxDequeuedBufferCount(6), NO_ERROR);
    }
    ~AnImageReader() override {
        for (AImage* image : images)
            AImage_delete(image);
        AImageReader_delete(reader);
    }
    status_t dequeue(uint32_t w = kWidth, uint32_t h = 1, PixelFormat format = kRawPrivate) {
        sp<Fence> fence;
        const status_t status = producer->dequeueBuffer(&slot, &fence, w, h, format,
                                                        GRALLOC_USAGE_SW_WRITE_OFTEN, nullptr, nullptr);
        return status < NO_ERROR ? status : producer->requestBuffer(slot, &buffer);
    }
    status_t queue(const sp<Fence>& fence = Fence::NO_FENCE, const Rect& crop = Rect()) {
        return producer->queueBuffer(slot, {0, false, HAL_DATASPACE_UNKNOWN, crop, 0, 0, fence}, &output);
    }
    void frame(uint8_t firstByte) {
        void* pixels = nullptr;
        ASSERT_EQ(dequeue(), NO_ERROR);
        ASSERT_EQ(buffer->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &pixels), NO_ERROR);
        *static_cast<uint8_t*>(pixels) = firstByte;
        ASSERT_EQ(buffer->unlock(), NO_ERROR);
        ASSERT_EQ(queue(), NO_ERROR);
    }
    // The image becomes the current one, and is deleted at the end.
    media_status_t acquire(media_status_t (*how)(AImageReader*, AImage**)) {
        const media_status_t status = how(reader, &image);
        if (status == AMEDIA_OK) images.push_back(image);
        return status;
    }
    media_status_t next() { return acquire(AImageReader_acquireNextImage); }
    media_status_t latest() { return acquire(AImageReader_acquireLatestImage); }
    media_status_t plane() { return AImage_getPlaneData(image, 0, &data, &length); }
    int firstByte() { return plane() == AMEDIA_OK ? data[0] : -1; }
    void drop() {
        images.erase(std::find(images.begin(), images.end(), image));
        AImage_delete(image);
    }

    AImageReader* reader = nullptr;
    sp<Producer> producer;
    Producer::QueueBufferOutput output;
    int slot = -1;
    sp<GraphicBuffer> buffer;  // of the latest dequeue
    AImage* image = nullptr;
    std::vector<AImage*> images;
    uint8_t* data = nullptr;
    int length = 0;
};
using AnImageReaderDeathTest = AnImageReader;

TEST_F(AnImageReaderDeathTest, EndsTheProcessWhenTheQueueCannotLendSoManyImages) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(makeReader(63), "");
    reader = makeReader(62);
}

TEST_F(AnImageReader, GivesTheOldestFrameUntilAllImagesAreOut) {
    make(2);
    image = reinterpret_cast<AImage*>(1);
    EXPECT_EQ(next(), AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE);
    EXPECT_EQ(image, nullptr);
    frame(10);
    frame(20);
    ASSERT_EQ(next(), AMEDIA_OK);
    EXPECT_EQ(firstByte(), 10);
    ASSERT_EQ(next(), AMEDIA_OK);
    EXPECT_EQ(firstByte(), 20);
    EXPECT_EQ(latest(), AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED) << "even when nothing is queued";
    EXPECT_EQ(next(), AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED);
    EXPECT_EQ(image, nullptr);
    image = images.front();
    drop();
    EXPECT_EQ(next(), AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE);
}

TEST_F(AnImageReader, SkipsToTheLatestFrameWithTwoFreePlacesOnly) {
    make(3);
    EXPECT_EQ(latest(), AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE);
    for (uint8_t i = 1; i <= 4; i++)
        frame(i);
    ASSERT_EQ(latest(), AMEDIA_OK);
    EXPECT_EQ(firstByte(), 4) << "older frames are dropped";
    for (uint8_t i = 5; i <= 7; i++)
        frame(i);
    ASSERT_EQ(next(), AMEDIA_OK);
    ASSERT_EQ(latest(), AMEDIA_OK);
    EXPECT_EQ(firstByte(), 6) << "one place only: the oldest";
    drop();
    ASSERT_EQ(next(), AMEDIA_OK);
    EXPECT_EQ(firstByte(), 7) << "and the rest stays queued";
}

TEST_F(AnImageReader, GivesARefusedFormatBackAndLosesAPlaceToACropOffTheOrigin) {
    make(2);
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(dequeue(64, 1, HAL_PIXEL_FORMAT_RGBA_8888), NO_ERROR);
        ASSERT_EQ(queue(), NO_ERROR);
        EXPECT_EQ(next(), AMEDIA_ERROR_UNKNOWN);
    }
    ASSERT_EQ(dequeue(), NO_ERROR);
    ASSERT_EQ(queue(Fence::NO_FENCE, Rect(1, 0, 10, 1)), NO_ERROR);
    EXPECT_EQ(next(), AMEDIA_ERROR_UNKNOWN);
    frame(1);
    EXPECT_EQ(next(), AMEDIA_OK);
    EXPECT_EQ(next(), AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED) << "two places, one lost, one out";
}

TEST_F(AnImageReader, WaitsForTheFramesFence) {
    make(2);
    SignalFence written;
    ASSERT_EQ(dequeue(), NO_ERROR);
    ASSERT_EQ(queue(written.fence()), NO_ERROR);
    std::future<media_status_t> waiting = std::async(std::launch::async, [&] { return next(); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
    written.signal();
    EXPECT_EQ(waiting.get(), AMEDIA_OK);
}

TEST_F(AnImageReader, GivesTheOnePlaneOfOneRowFrames) {
    make(3);
    for (const uint32_t width : {16u, static_cast<uint32_t>(2 * kWidth)}) {
        ASSERT_EQ(dequeue(width), NO_ERROR);
        ASSERT_EQ(queue(), NO_ERROR);
        ASSERT_EQ(next(), AMEDIA_OK) << "another size than the reader's is no reason to refuse";
        ASSERT_EQ(plane(), AMEDIA_OK);
        EXPECT_EQ(width, static_cast<uint32_t>(length)) << "the length is the producer's width";
    }
    ASSERT_EQ(dequeue(64, 2), NO_ERROR);
    ASSERT_EQ(queue(), NO_ERROR);
    ASSERT_EQ(next(), AMEDIA_OK);
    EXPECT_EQ(plane(), AMEDIA_ERROR_UNKNOWN) << "two rows";
}

TEST_F(AnImageReader, MayGoWhileItsImagesAreDeleted) {
    for (int round = 0; round < 50; round++) {
        make(4);
        for (int i = 0; i < 3; i++) {
            frame(1);
            ASSERT_EQ(next(), AMEDIA_OK);
        }
        std::thread deleting([&] {
            for (AImage* each : images)
                AImage_delete(each);
        });
        AImageReader_delete(reader);
        deleting.join();
        images.clear();
    }
    reader = nullptr;
}

}  // namespace
