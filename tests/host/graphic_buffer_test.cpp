#include <gtest/gtest.h>
#include <ui/GraphicBuffer.h>

using namespace android;

namespace {

constexpr uint32_t kUsage = GRALLOC_USAGE_SW_READ_OFTEN | GRALLOC_USAGE_SW_WRITE_OFTEN;

sp<GraphicBuffer> make(uint32_t w, uint32_t h, PixelFormat format) {
    return new GraphicBuffer(w, h, format, 1, kUsage);
}

TEST(AGraphicBuffer, WithoutMemoryIsZeroSizedAndSaysWhy) {
    const std::pair<sp<GraphicBuffer>, status_t> rows[] = {
        {new GraphicBuffer, NO_ERROR},
        {make(8, 8, 12345), NO_MEMORY},
        {make(UINT32_MAX, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE), NO_MEMORY},
        {make(65536, 65536, HAL_PIXEL_FORMAT_RGBA_8888), BAD_VALUE},
    };
    for (const auto& [buffer, expected] : rows) {
        void* address = nullptr;
        EXPECT_EQ(expected, buffer->initCheck());
        EXPECT_EQ(buffer->getWidth(), 0u);
        EXPECT_EQ(buffer->lock(kUsage, &address), BAD_VALUE);
    }
}

// That its memory must be sealed is tested with the channel that carries it.
TEST(AnImportedBuffer, CannotFaultLater) {
    const sp<GraphicBuffer> original = make(4096, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE);
    for (const uint32_t width : {4097, 0, 16}) {  // memory too small, none, rows of another length
        GraphicBuffer::Attributes attributes = original->attributes();
        attributes.width = width;
        if (width != 16) attributes.stride = width;
        EXPECT_EQ(GraphicBuffer::importFrom(original->handle, attributes), nullptr) << width;
    }
    EXPECT_EQ(GraphicBuffer::importFrom(nullptr, original->attributes()), nullptr);
}

}  // namespace
