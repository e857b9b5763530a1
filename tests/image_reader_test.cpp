#include <gtest/gtest.h>
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

AImageReader* makeReader(int32_t maxImages, uint64_t usage = AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN) {
    AImageReader* reader = nullptr;
    EXPECT_EQ(AMEDIA_OK, AImageReader_newWithUsage(kWidth, 1, kRawPrivate, usage, maxImages, &reader));
    return reader;
}

sp<Producer> producerOf(AImageReader* reader) {
    ANativeWindow* window = nullptr;
    EXPECT_EQ(AMEDIA_OK, AImageReader_getWindow(reader, &window));
    const sp<Surface> surface = static_cast<Surface*>(window);
    return surface->getIGraphicBufferProducer();
}

// The application's side: queues one-row frames.
class FrameSource {
  public:
    explicit FrameSource(const sp<Producer>& producer) : mProducer(producer) {
        EXPECT_EQ(NO_ERROR, mProducer->connect(nullptr, NATIVE_WINDOW_API_CPU, false, &mOutput));
        EXPECT_EQ(NO_ERROR, mProducer->setMaxDequeuedBufferCount(6));
    }

    status_t dequeue(int* slot, uint32_t w = kWidth, uint32_t h = 1, PixelFormat format = kRawPrivate) {
        sp<Fence> fence;
        const status_t status = mProducer->dequeueBuffer(slot, &fence, w, h, format,
                                                         GRALLOC_USAGE_SW_WRITE_OFTEN, nullptr, nullptr);
        return status < NO_ERROR ? status : mProducer->requestBuffer(*slot, &mBuffer);
    }

    status_t queue(int slot, int64_t timestamp = 0, const sp<Fence>& fence = Fence::NO_FENCE,
                   const Rect& crop = Rect()) {
        return mProducer->queueBuffer(slot, {timestamp, false, HAL_DATASPACE_UNKNOWN, crop, 0, 0, fence},
                                      &mOutput);
    }

    void frame(uint8_t firstByte, int64_t timestamp = 0) {
        int slot = -1;
        ASSERT_EQ(NO_ERROR, dequeue(&slot));
        void* pixels = nullptr;
        ASSERT_EQ(NO_ERROR, mBuffer->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &pixels));
        *static_cast<uint8_t*>(pixels) = firstByte;
        ASSERT_EQ(NO_ERROR, mBuffer->unlock());
        ASSERT_EQ(NO_ERROR, queue(slot, timestamp));
    }

  private:
    const sp<Producer> mProducer;
    Producer::QueueBufferOutput mOutput;
    sp<GraphicBuffer> mBuffer;
};

int firstByteOf(const AImage* image) {
    uint8_t* data = nullptr;
    int length = 0;
    return AImage_getPlaneData(image, 0, &data, &length) == AMEDIA_OK ? data[0] : -1;
}

class AnImageReader : public testing::Test {
  protected:
    void make(int32_t maxImages, uint64_t usage = AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN) {
        reader = makeReader(maxImages, usage);
        producer = producerOf(reader);
        source = std::make_unique<FrameSource>(producer);
    }
    ~AnImageReader() override {
        for (AImage* image : images)
            AImage_delete(image);
        AImageReader_delete(reader);
    }

    media_status_t next(AImage** image) {
        const media_status_t status = AImageReader_acquireNextImage(reader, image);
        if (status == AMEDIA_OK) images.push_back(*image);
        return status;
    }

    media_status_t latest(AImage** image) {
        const media_status_t status = AImageReader_acquireLatestImage(reader, image);
        if (status == AMEDIA_OK) images.push_back(*image);
        return status;
    }

    void drop(AImage* image) {
        images.erase(std::find(images.begin(), images.end(), image));
        AImage_delete(image);
    }

    AImageReader* reader = nullptr;
    sp<Producer> producer;
    std::unique_ptr<FrameSource> source;
    std::vector<AImage*> images;  // deleted at the end
};

TEST(ImageReaderCreation, RefusesWhatTheQueueCannotServe) {
    AImageReader* reader = nullptr;
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_new(0, 1, kRawPrivate, 2, &reader));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_new(1, 0, kRawPrivate, 2, &reader));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_new(-5, 1, kRawPrivate, 2, &reader));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_new(1, 1, kRawPrivate, 0, &reader));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_new(1, 1, kRawPrivate, 65, &reader));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_new(1, 1, 12345, 2, &reader));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_new(1, 1, AIMAGE_FORMAT_PRIVATE, 2, &reader));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_new(1, 1, kRawPrivate, 2, nullptr));
    EXPECT_EQ(nullptr, reader) << "nothing is written on failure";
    AImageReader_delete(nullptr);
}

TEST(ImageReaderDeathTest, CountTheQueueCannotLend_EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    AImageReader* reader = nullptr;
    EXPECT_DEATH(AImageReader_new(1, 1, kRawPrivate, 63, &reader), "");
    EXPECT_DEATH(AImageReader_new(1, 1, kRawPrivate, 64, &reader), "");
    EXPECT_EQ(AMEDIA_OK, AImageReader_new(1, 1, kRawPrivate, 62, &reader));
    AImageReader_delete(reader);
}

TEST_F(AnImageReader, GivesItsOneWindowWithoutAReference) {
    make(2);
    ANativeWindow* first = nullptr;
    ANativeWindow* second = nullptr;
    EXPECT_EQ(AMEDIA_OK, AImageReader_getWindow(reader, &first));
    EXPECT_EQ(AMEDIA_OK, AImageReader_getWindow(reader, &second));
    EXPECT_EQ(first, second);
    EXPECT_EQ(1, static_cast<Surface*>(first)->getStrongCount());
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_getWindow(nullptr, &first));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_getWindow(reader, nullptr));
}

TEST_F(AnImageReader, ProducerGetsTheReadersSizeFormatAndUsageByDefault) {
    make(2);
    int slot = -1;
    sp<Fence> fence;
    sp<GraphicBuffer> buffer;
    ASSERT_EQ(1, producer->dequeueBuffer(&slot, &fence, 0, 0, 0, 0, nullptr, nullptr));
    ASSERT_EQ(NO_ERROR, producer->requestBuffer(slot, &buffer));
    EXPECT_EQ(static_cast<uint32_t>(kWidth), buffer->getWidth());
    EXPECT_EQ(1u, buffer->getHeight());
    EXPECT_EQ(kRawPrivate, buffer->getPixelFormat());
    EXPECT_EQ(AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN, buffer->getUsage());
}

TEST_F(AnImageReader, SixDequeuedBuffers_FitUpTo58Images) {
    make(58);  // the source sets six
    AImageReader* crowded = makeReader(59);
    const sp<Producer> other = producerOf(crowded);
    EXPECT_EQ(BAD_VALUE, other->setMaxDequeuedBufferCount(6));
    AImageReader_delete(crowded);
}

TEST_F(AnImageReader, AcquireNext_GivesTheOldestFrame) {
    make(3);
    AImage* image = reinterpret_cast<AImage*>(1);
    EXPECT_EQ(AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE, next(&image));
    EXPECT_EQ(nullptr, image);
    source->frame(10, 1000);
    source->frame(20, 2000);
    ASSERT_EQ(AMEDIA_OK, next(&image));
    EXPECT_EQ(10, firstByteOf(image));
    int64_t timestamp = 0;
    EXPECT_EQ(AMEDIA_OK, AImage_getTimestamp(image, &timestamp));
    EXPECT_EQ(1000, timestamp);
    ASSERT_EQ(AMEDIA_OK, next(&image));
    EXPECT_EQ(20, firstByteOf(image));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_acquireNextImage(nullptr, &image));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImageReader_acquireNextImage(reader, nullptr));
}

TEST_F(AnImageReader, WithAllImagesOut_TellsSoEvenWhenNothingIsQueued) {
    make(2);
    AImage* image = nullptr;
    source->frame(1);
    source->frame(2);
    ASSERT_EQ(AMEDIA_OK, next(&image));
    ASSERT_EQ(AMEDIA_OK, next(&image));
    EXPECT_EQ(AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED, next(&image));
    EXPECT_EQ(nullptr, image);
    EXPECT_EQ(AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED, latest(&image));
    drop(images.front());
    EXPECT_EQ(AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE, next(&image));
}

TEST_F(AnImageReader, AcquireLatest_NeedsTwoFreePlacesToSkip) {
    make(3);
    AImage* image = nullptr;
    EXPECT_EQ(AMEDIA_IMGREADER_NO_BUFFER_AVAILABLE, latest(&image));
    for (uint8_t i = 1; i <= 4; i++)
        source->frame(i);
    ASSERT_EQ(AMEDIA_OK, latest(&image));
    EXPECT_EQ(4, firstByteOf(image)) << "older frames are dropped";
    for (uint8_t i = 5; i <= 6; i++)
        source->frame(i);
    ASSERT_EQ(AMEDIA_OK, next(&image));
    source->frame(7);
    ASSERT_EQ(AMEDIA_OK, latest(&image));
    EXPECT_EQ(6, firstByteOf(image)) << "one place only: the oldest";
    drop(image);
    ASSERT_EQ(AMEDIA_OK, next(&image));
    EXPECT_EQ(7, firstByteOf(image)) << "and the rest stays queued";
}

TEST_F(AnImageReader, FrameOfAnotherFormat_IsRefusedAndGivenBack) {
    make(2);
    AImage* image = nullptr;
    for (int i = 0; i < 10; i++) {
        int slot = -1;
        ASSERT_EQ(NO_ERROR, source->dequeue(&slot, 64, 1, HAL_PIXEL_FORMAT_RGBA_8888));
        ASSERT_EQ(NO_ERROR, source->queue(slot));
        EXPECT_EQ(AMEDIA_ERROR_UNKNOWN, next(&image));
    }
    source->frame(1);
    EXPECT_EQ(AMEDIA_OK, next(&image)) << "no place was lost";
}

TEST_F(AnImageReader, FrameWithCropOffTheOrigin_CostsAPlace) {
    make(2);
    AImage* image = nullptr;
    int slot = -1;
    ASSERT_EQ(NO_ERROR, source->dequeue(&slot));
    ASSERT_EQ(NO_ERROR, source->queue(slot, 0, Fence::NO_FENCE, Rect(1, 0, 10, 1)));
    EXPECT_EQ(AMEDIA_ERROR_UNKNOWN, next(&image));
    source->frame(1);
    EXPECT_EQ(AMEDIA_OK, next(&image));
    EXPECT_EQ(AMEDIA_IMGREADER_MAX_IMAGES_ACQUIRED, next(&image)) << "two places, one lost, one out";
}

TEST_F(AnImageReader, Acquire_WaitsForTheFramesFence) {
    make(2);
    SignalFence written;
    int slot = -1;
    ASSERT_EQ(NO_ERROR, source->dequeue(&slot));
    ASSERT_EQ(NO_ERROR, source->queue(slot, 0, written.fence()));
    AImage* image = nullptr;
    std::future<media_status_t> waiting = std::async(std::launch::async, [&] { return next(&image); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(kBriefly));
    written.signal();
    EXPECT_EQ(AMEDIA_OK, waiting.get());
}

TEST_F(AnImageReader, PlaneLength_IsTheProducersWidth) {
    make(3);
    for (const uint32_t width : {16u, static_cast<uint32_t>(2 * kWidth)}) {
        int slot = -1;
        ASSERT_EQ(NO_ERROR, source->dequeue(&slot, width));
        ASSERT_EQ(NO_ERROR, source->queue(slot));
        AImage* image = nullptr;
        ASSERT_EQ(AMEDIA_OK, next(&image)) << "another size than the reader's is no reason to refuse";
        uint8_t* data = nullptr;
        int length = 0;
        ASSERT_EQ(AMEDIA_OK, AImage_getPlaneData(image, 0, &data, &length));
        EXPECT_EQ(width, static_cast<uint32_t>(length));
    }
}

TEST_F(AnImageReader, PlaneAccess_ChecksArgumentsAndHeight) {
    make(3);
    source->frame(1);
    AImage* image = nullptr;
    ASSERT_EQ(AMEDIA_OK, next(&image));
    uint8_t* data = nullptr;
    int length = 0;
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImage_getPlaneData(nullptr, 0, &data, &length));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImage_getPlaneData(image, 0, nullptr, &length));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImage_getPlaneData(image, 0, &data, nullptr));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImage_getPlaneData(image, 1, &data, &length));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImage_getPlaneData(image, -1, &data, &length));
    ASSERT_EQ(AMEDIA_OK, AImage_getPlaneData(image, 0, &data, &length));
    uint8_t* again = nullptr;
    ASSERT_EQ(AMEDIA_OK, AImage_getPlaneData(image, 0, &again, &length));
    EXPECT_EQ(data, again);

    int slot = -1;
    ASSERT_EQ(NO_ERROR, source->dequeue(&slot, 64, 2));
    ASSERT_EQ(NO_ERROR, source->queue(slot));
    ASSERT_EQ(AMEDIA_OK, next(&image));
    EXPECT_EQ(AMEDIA_ERROR_UNKNOWN, AImage_getPlaneData(image, 0, &data, &length)) << "two rows";
}

TEST_F(AnImageReader, WithoutCpuReadUsage_RefusesEveryPlane) {
    make(2, AHARDWAREBUFFER_USAGE_CPU_WRITE_OFTEN);
    source->frame(1);
    AImage* image = nullptr;
    ASSERT_EQ(AMEDIA_OK, next(&image));
    uint8_t* data = nullptr;
    int length = 0;
    EXPECT_EQ(AMEDIA_IMGREADER_CANNOT_LOCK_IMAGE, AImage_getPlaneData(image, 0, &data, &length));
    AHardwareBuffer* buffer = nullptr;
    EXPECT_EQ(AMEDIA_OK, AImage_getHardwareBuffer(image, &buffer)) << "the buffer itself is still there";
}

TEST_F(AnImageReader, HardwareBuffer_IsTheProducersAndBorrowed) {
    make(2);
    source->frame(77);
    AImage* image = nullptr;
    ASSERT_EQ(AMEDIA_OK, next(&image));
    AHardwareBuffer* hardwareBuffer = nullptr;
    ASSERT_EQ(AMEDIA_OK, AImage_getHardwareBuffer(image, &hardwareBuffer));
    GraphicBuffer* const borrowed = GraphicBuffer::fromAHardwareBuffer(hardwareBuffer);
    const int before = borrowed->getStrongCount();
    ASSERT_EQ(AMEDIA_OK, AImage_getHardwareBuffer(image, &hardwareBuffer));
    EXPECT_EQ(before, borrowed->getStrongCount());
    EXPECT_EQ(static_cast<uint32_t>(kWidth), borrowed->getWidth());
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImage_getHardwareBuffer(nullptr, &hardwareBuffer));
    EXPECT_EQ(AMEDIA_ERROR_INVALID_PARAMETER, AImage_getHardwareBuffer(image, nullptr));
}

TEST_F(AnImageReader, DeletedImage_UnlocksItsBuffer) {
    make(2);
    source->frame(1);
    AImage* image = nullptr;
    ASSERT_EQ(AMEDIA_OK, next(&image));
    AHardwareBuffer* hardwareBuffer = nullptr;
    ASSERT_EQ(AMEDIA_OK, AImage_getHardwareBuffer(image, &hardwareBuffer));
    const sp<GraphicBuffer> held = GraphicBuffer::fromAHardwareBuffer(hardwareBuffer);
    ASSERT_EQ(1, firstByteOf(image));
    drop(image);
    EXPECT_EQ(BAD_VALUE, held->unlock()) << "no lock is left";
}

TEST_F(AnImageReader, DeletedImage_GivesItsSlotBack) {
    make(1);
    for (uint8_t i = 0; i < 30; i++) {
        source->frame(i);
        AImage* image = nullptr;
        ASSERT_EQ(AMEDIA_OK, next(&image));
        EXPECT_EQ(i, firstByteOf(image));
        drop(image);
    }
    AImage_delete(nullptr);
}

TEST_F(AnImageReader, DeletedReader_LeavesImagesForDeletionOnly) {
    make(2);
    source->frame(5);
    AImage* image = nullptr;
    ASSERT_EQ(AMEDIA_OK, next(&image));
    ASSERT_EQ(5, firstByteOf(image));
    AHardwareBuffer* hardwareBuffer = nullptr;
    ASSERT_EQ(AMEDIA_OK, AImage_getHardwareBuffer(image, &hardwareBuffer));
    const sp<GraphicBuffer> held = GraphicBuffer::fromAHardwareBuffer(hardwareBuffer);
    AImageReader_delete(reader);
    reader = nullptr;

    int slot = -1;
    EXPECT_EQ(NO_INIT, source->dequeue(&slot)) << "the queue is abandoned";
    EXPECT_EQ(AMEDIA_ERROR_INVALID_OBJECT, AImage_getHardwareBuffer(image, &hardwareBuffer));
    int64_t timestamp = 0;
    EXPECT_EQ(AMEDIA_ERROR_INVALID_OBJECT, AImage_getTimestamp(image, &timestamp));
    void* pixels = nullptr;
    ASSERT_EQ(NO_ERROR, held->lock(GRALLOC_USAGE_SW_READ_OFTEN, &pixels));
    EXPECT_EQ(5, *static_cast<uint8_t*>(pixels)) << "a held buffer stays readable";
}

TEST(ImageReaderDeathTest, PlaneOfImageWithoutReader_EndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    AImageReader* reader = makeReader(2);
    FrameSource source(producerOf(reader));
    source.frame(1);
    AImage* image = nullptr;
    ASSERT_EQ(AMEDIA_OK, AImageReader_acquireNextImage(reader, &image));
    AImageReader_delete(reader);
    uint8_t* data = nullptr;
    int length = 0;
    EXPECT_DEATH(AImage_getPlaneData(image, 0, &data, &length), "");
    AImage_delete(image);
}

TEST(ImageReaderThreads, ImagesMayBeDeletedWhileTheReaderGoes) {
    for (int round = 0; round < 50; round++) {
        AImageReader* reader = makeReader(4);
        FrameSource source(producerOf(reader));
        std::vector<AImage*> images(3);
        for (AImage*& image : images) {
            source.frame(1);
            ASSERT_EQ(AMEDIA_OK, AImageReader_acquireNextImage(reader, &image));
        }
        std::thread deleting([&] {
            for (AImage* image : images)
                AImage_delete(image);
        });
        AImageReader_delete(reader);
        deleting.join();
    }
}

}  // namespace
