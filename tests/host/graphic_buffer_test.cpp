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

TEST(AGraphicBuffer, WithoutMemoryIsZeroSizedAndSaysWhy) {
    const auto check = [](const sp<GraphicBuffer>& buffer, status_t expected) {
        void* address = nullptr;
        EXPECT_EQ(expected, buffer->initCheck());
        EXPECT_EQ(buffer->getWidth(), 0u);
        EXPECT_EQ(buffer->lock(kUsage, &address), BAD_VALUE);
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
    EXPECT_EQ(GraphicBuffer::importFrom(nullptr, original->attributes()), nullptr);
}

}  // namespace
