#include <gtest/gtest.h>
#include <ui/GraphicBuffer.h>

using namespace android;

namespace {

constexpr uint32_t kUsage = GRALLOC_USAGE_SW_READ_OFTEN | GRALLOC_USAGE_SW_WRITE_OFTEN;

sp<GraphicBuffer> make(uint32_t w, uint32_t h, PixelFormat format) {
    return new GraphicBuffer(w, h, format, 1, kUsage);
}

sp<GraphicBuffer> makeBlob(uint32_t bytes) {
    return make(bytes, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE);
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
        void* memory = nullptr;
        ASSERT_EQ(NO_ERROR, buffer->lock(kUsage, &memory));
        static_cast<uint8_t*>(memory)[row.byteCount - 1] = 2;  // the last byte is mapped too
    }
}

TEST(AGraphicBuffer, WithoutMemoryIsZeroSizedAndSaysWhy) {
    const auto check = [](const sp<GraphicBuffer>& buffer, status_t expected) {
        void* address = nullptr;
        EXPECT_EQ(expected, buffer->initCheck());
        EXPECT_EQ(0u, buffer->getWidth());
        EXPECT_EQ(BAD_VALUE, buffer->lock(kUsage, &address));
    };
    check(new GraphicBuffer, NO_ERROR);
    check(make(8, 8, 12345), NO_MEMORY);
    check(make(8, 2, HAL_PIXEL_FORMAT_BLOB), NO_MEMORY);
    check(makeBlob(UINT32_MAX), NO_MEMORY);
    check(make(65536, 65536, HAL_PIXEL_FORMAT_RGBA_8888), BAD_VALUE);
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
