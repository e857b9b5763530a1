#include <gtest/gtest.h>
#include <ui/AllocationFault.h>
#include <ui/GraphicBuffer.h>

#include <set>
#include <thread>
#include <vector>

using namespace android;

namespace {

constexpr uint32_t kRead = GRALLOC_USAGE_SW_READ_OFTEN;
constexpr uint32_t kWrite = GRALLOC_USAGE_SW_WRITE_OFTEN;

sp<GraphicBuffer> make(uint32_t w, uint32_t h, PixelFormat format, uint64_t usage = kRead | kWrite) {
    return new GraphicBuffer(w, h, format, 1, usage);
}

sp<GraphicBuffer> makeBlob(uint32_t bytes, uint64_t usage = kRead | kWrite) {
    return make(bytes, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE, usage);
}

uint8_t* lockOrFail(const sp<GraphicBuffer>& buffer, uint32_t usage) {
    void* address = nullptr;
    EXPECT_EQ(NO_ERROR, buffer->lock(usage, &address));
    return static_cast<uint8_t*>(address);
}

TEST(AGraphicBuffer, HasTheMemoryOfItsFormat) {
    struct {
        uint32_t width, height;
        PixelFormat format;
        size_t byteCount;
    } const rows[] = {{3110496, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE, 3110496},
                      {640, 480, HAL_PIXEL_FORMAT_RGBA_8888, 640 * 480 * 4},
                      {3, 3, HAL_PIXEL_FORMAT_YCRCB_420_SP, 9 + 2 * 4}};
    for (const auto& row : rows) {
        const sp<GraphicBuffer> buffer = make(row.width, row.height, row.format);
        ASSERT_EQ(NO_ERROR, buffer->initCheck());
        EXPECT_EQ(row.byteCount, buffer->getByteCount());
        EXPECT_EQ(row.width, buffer->getStride());
        lockOrFail(buffer, kWrite)[row.byteCount - 1] = 2;  // the last byte is mapped too
    }
}

TEST(AGraphicBuffer, WithoutMemoryIsZeroSizedAndSaysWhy) {
    const auto check = [](const sp<GraphicBuffer>& buffer, status_t expected) {
        void* address = nullptr;
        EXPECT_EQ(expected, buffer->initCheck());
        EXPECT_EQ(0u, buffer->getWidth());
        EXPECT_EQ(BAD_VALUE, buffer->lock(kRead, &address));
    };
    check(new GraphicBuffer, NO_ERROR);
    check(make(8, 8, 12345), NO_MEMORY);
    check(make(8, 2, HAL_PIXEL_FORMAT_BLOB), NO_MEMORY);
    check(makeBlob(UINT32_MAX), NO_MEMORY);
    check(make(65536, 65536, HAL_PIXEL_FORMAT_RGBA_8888), BAD_VALUE);
    {
        AllocationFault fault(NO_MEMORY, 1);
        EXPECT_EQ(NO_ERROR, makeBlob(16)->initCheck());
        check(makeBlob(16), NO_MEMORY);
    }
    EXPECT_EQ(NO_ERROR, makeBlob(16)->initCheck());
}

TEST(AGraphicBuffer, LocksToTheSameZeroedMemoryFromEveryThread) {
    const sp<GraphicBuffer> buffer = makeBlob(4096);
    std::vector<uint8_t*> addresses(4);
    std::vector<std::thread> threads;
    for (uint8_t*& address : addresses)
        threads.emplace_back([&] { address = lockOrFail(buffer, kRead); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(1u, std::set<uint8_t*>(addresses.begin(), addresses.end()).size());
    EXPECT_EQ(0, addresses[0][4095]);
    for (size_t i = 0; i < addresses.size(); i++)
        EXPECT_EQ(NO_ERROR, buffer->unlock());
    EXPECT_EQ(BAD_VALUE, buffer->unlock()) << "one unlock for each lock";
}

TEST(AGraphicBuffer, RefusesToLockOutsideItsBoundsOrUsage) {
    const sp<GraphicBuffer> buffer = makeBlob(64, GRALLOC_USAGE_SW_WRITE_RARELY);
    void* address = nullptr;
    EXPECT_EQ(NO_ERROR, buffer->lock(kWrite, Rect(0, 0, 64, 1), &address));
    for (const Rect& rect : {Rect(0, 0, 65, 1), Rect(-1, 0, 64, 1), Rect(0, 0, 64, 2)})
        EXPECT_EQ(BAD_VALUE, buffer->lock(kWrite, rect, &address));
    EXPECT_EQ(BAD_VALUE, buffer->lock(kRead, &address)) << "not allocated for reading";
    EXPECT_EQ(BAD_VALUE, buffer->lock(kWrite, nullptr));
}

TEST(AGraphicBuffer, NeedsReallocationForAnotherShapeOrMoreUsage) {
    constexpr PixelFormat kFormat = HAL_PIXEL_FORMAT_RGBA_8888;
    const sp<GraphicBuffer> buffer = make(8, 4, kFormat);
    EXPECT_FALSE(buffer->needsReallocation(8, 4, kFormat, 1, kWrite));
    EXPECT_TRUE(buffer->needsReallocation(9, 4, kFormat, 1, kWrite));
    EXPECT_TRUE(buffer->needsReallocation(8, 5, kFormat, 1, kWrite));
    EXPECT_TRUE(buffer->needsReallocation(8, 4, HAL_PIXEL_FORMAT_RGBX_8888, 1, kWrite));
    EXPECT_TRUE(buffer->needsReallocation(8, 4, kFormat, 1, 0x100));
}

// That its memory must be sealed is tested with the adapter that imports it.
TEST(AnImportedBuffer, CannotFaultLater) {
    const sp<GraphicBuffer> original = makeBlob(4096);
    const auto refuses = [&](auto change) {
        GraphicBuffer::Attributes attributes = original->attributes();
        change(attributes);
        return GraphicBuffer::importFrom(original->handle, attributes) == nullptr;
    };
    EXPECT_TRUE(refuses([](auto& wrong) { wrong.width = wrong.stride = 4097; })) << "memory too small";
    EXPECT_TRUE(refuses([](auto& wrong) { wrong.width = wrong.stride = 0; }));
    EXPECT_TRUE(refuses([](auto& wrong) { wrong.width = 16; })) << "rows of another length";
    EXPECT_TRUE(refuses([](auto& wrong) { wrong.format = 12345; }));
    EXPECT_EQ(nullptr, GraphicBuffer::importFrom(nullptr, original->attributes()));
}

}  // namespace
