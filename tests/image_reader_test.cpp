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
    EXPECT_EQ(AMEDIA_OK, AImageReader_new(kWidth, 1, kRawPrivate, maxImages, &reader));
    return reader;
}

sp<Producer> producerOf(AImageReader* reader) {
    ANativeWindow* window = nullptr;
    EXPECT_EQ(AMEDIA_OK, AImageReader_getWindow(reader, &window));
    const sp<Surface> surface = static_cast<Surface*>(window);
    return surface->getIGraphicBufferProducer();
}

// A reader and, on the application's side, a producer of one-row frames.
class AnImageReader : public testing::Test {
  protected:
    void make(int32_t maxImages) {
        reader = makeReader(maxImages);
        producer = producerOf(reader);
        EXPECT_EQ(NO_ERROR, producer->connect(nullptr, NATIVE_WINDOW_API_CPU, false, &output));
        EXPECT_EQ(NO_ERROR, producer->setMaxDequeuedBufferCount(6));
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
        ASSERT_EQ(NO_ERROR, dequeue());
        ASSERT_EQ(NO_ERROR, buffer->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &pixels));
        *static_cast<uint8_t*>(pixels) = firstByte;
        ASSERT_EQ(NO_ERROR, buffer->unlock());
        ASSERT_EQ(NO_ERROR, queue());
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

TEST(ImageReaderCreation, RefusesWhatTheQueueCannotServe) {
    struct {
        int32_t width, height, format, maxImages;
    } const rows[] = {{0, 1, kRawPrivate, 2},  {1, 0, kRawPrivate, 2}, {1, 1, kRawPrivate, 0},
                      {1, 1, kRawPrivate, 65}, {1, 1, 12345, 2},       {1, 1, AIMAGE_FORMAT_PRIVATE, 2}};
    AImageReader* reader = nullptr;
    for (const auto& row : rows) {
        EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER,
                  AImageReader_new(row.width, row.height, row.format, row.maxImages, &reader));
        EXPECT_EQ(nullptr, reader) << "nothing is written on failure";
    }
}

TEST_F(AnImageReaderDeathTest, EndsTheProcessWhenTheQueueCannotLendSoManyImages) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(makeReader(63), "");
    AImageReader_delete(makeReader(62));
    reader = makeReader(59);
    EXPECT_EQ(BAD_VALUE, producerOf(reader)->setMaxDequeuedBufferCount(6));
    EXPECT_EQ(NO_ERROR, producerOf(reader)->setMaxDequeuedBufferCount(5));
}

TEST_F(AnImageReader, GivesTheOldestFrameUntilAllImagesAreOut) {
    make(2);
    image = reinterpret_cast<AImage*>(1);
    EXPECT_EQ(AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE, next());
    EXPECT_EQ(nullptr, image);
    frame(10);
    frame(20);
    ASSERT_EQ(AMEDIA_OK, next());
    EXPECT_EQ(10, firstByte());
    ASSERT_EQ(AMEDIA_OK, next());
    EXPECT_EQ(20, firstByte());
    EXPECT_EQ(AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED, latest()) << "even when nothing is queued";
    EXPECT_EQ(AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED, next());
    EXPECT_EQ(nullptr, image);
    image = images.front();
    drop();
    EXPECT_EQ(AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE, next());
}

TEST_F(AnImageReader, SkipsToTheLatestFrameWithTwoFreePlacesOnly) {
    make(3);
    EXPECT_EQ(AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE, latest());
    for (uint8_t i = 1; i <= 4; i++)
        frame(i);
    ASSERT_EQ(AMEDIA_OK, latest());
    EXPECT_EQ(4, firstByte()) << "older frames are dropped";
    for (uint8_t i = 5; i <= 7; i++)
        frame(i);
    ASSERT_EQ(AMEDIA_OK, next());
    ASSERT_EQ(AMEDIA_OK, latest());
    EXPECT_EQ(6, firstByte()) << "one place only: the oldest";
    drop();
    ASSERT_EQ(AMEDIA_OK, next());
    EXPECT_EQ(7, firstByte()) << "and the rest stays queued";
}

TEST_F(AnImageReader, GivesARefusedFormatBackAndLosesAPlaceToACropOffTheOrigin) {
    make(2);
    for (int i = 0; i < 10; i++) {
        ASSERT_EQ(NO_ERROR, dequeue(64, 1, HAL_PIXEL_FORMAT_RGBA_8888));
        ASSERT_EQ(NO_ERROR, queue());
        EXPECT_EQ(AMEDIA_ERROR_UNKNOWN, next());
    }
    ASSERT_EQ(NO_ERROR, dequeue());
    ASSERT_EQ(NO_ERROR, queue(Fence::NO_FENCE, Rect(1, 0, 10, 1)));
    EXPECT_EQ(AMEDIA_ERROR_UNKNOWN, next());
    frame(1);
    EXPECT_EQ(AMEDIA_OK, next());
    EXPECT_EQ(AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED, next()) << "two places, one lost, one out";
}

TEST_F(AnImageReader, WaitsForTheFramesFence) {
    make(2);
    SignalFence written;
    ASSERT_EQ(NO_ERROR, dequeue());
    ASSERT_EQ(NO_ERROR, queue(written.fence()));
    std::future<media_status_t> waiting = std::async(std::launch::async, [&] { return next(); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
    written.signal();
    EXPECT_EQ(AMEDIA_OK, waiting.get());
}

TEST_F(AnImageReader, GivesTheOnePlaneOfOneRowFrames) {
    make(3);
    for (const uint32_t width : {16u, static_cast<uint32_t>(2 * kWidth)}) {
        ASSERT_EQ(NO_ERROR, dequeue(width));
        ASSERT_EQ(NO_ERROR, queue());
        ASSERT_EQ(AMEDIA_OK, next()) << "another size than the reader's is no reason to refuse";
        ASSERT_EQ(AMEDIA_OK, plane());
        EXPECT_EQ(width, static_cast<uint32_t>(length)) << "the length is the producer's width";
    }
    ASSERT_EQ(NO_ERROR, dequeue(64, 2));
    ASSERT_EQ(NO_ERROR, queue());
    ASSERT_EQ(AMEDIA_OK, next());
    EXPECT_EQ(AMEDIA_ERROR_UNKNOWN, plane()) << "two rows";
}

TEST_F(AnImageReaderDeathTest, LeavesItsImagesForDeletionOnlyWhenDeleted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    make(2);
    frame(5);
    ASSERT_EQ(AMEDIA_OK, next());
    ASSERT_EQ(5, firstByte());
    AHardwareBuffer* borrowed = nullptr;
    ASSERT_EQ(AMEDIA_OK, AImage_getHardwareBuffer(image, &borrowed));
    const sp<GraphicBuffer> held = GraphicBuffer::fromAHardwareBuffer(borrowed);
    AImageReader_delete(reader);
    reader = nullptr;

    EXPECT_EQ(NO_INIT, dequeue()) << "the queue is abandoned";
    EXPECT_EQ(AMEDIA_ERROR_INVALID_OBJECT, AImage_getHardwareBuffer(image, &borrowed));
    void* pixels = nullptr;
    ASSERT_EQ(NO_ERROR, held->lock(GRALLOC_USAGE_SW_READ_OFTEN, &pixels));
    EXPECT_EQ(5, *static_cast<uint8_t*>(pixels)) << "a held buffer stays readable";
    EXPECT_DEATH(plane(), "");
}

TEST_F(AnImageReader, MayGoWhileItsImagesAreDeleted) {
    for (int round = 0; round < 50; round++) {
        make(4);
        for (int i = 0; i < 3; i++) {
            frame(1);
            ASSERT_EQ(AMEDIA_OK, next());
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
