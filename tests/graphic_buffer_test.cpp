#include <android/hardware_buffer.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <ui/AllocationFault.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <thread>
#include <vector>

#include "SignalFence.h"

using namespace android;

namespace {

constexpr uint64_t kReadWrite = GRALLOC_USAGE_SW_READ_OFTEN | GRALLOC_USAGE_SW_WRITE_OFTEN;

sp<GraphicBuffer> makeBlob(uint32_t bytes, uint64_t usage = kReadWrite) {
    return new GraphicBuffer(bytes, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE, 1, usage);
}

uint8_t* lockOrFail(const sp<GraphicBuffer>& buffer, uint32_t usage) {
    void* address = nullptr;
    EXPECT_EQ(NO_ERROR, buffer->lock(usage, &address));
    return static_cast<uint8_t*>(address);
}

// Runs the body in a process of its own; true when it returned true.
bool inOtherProcess(const std::function<bool()>& body) {
    const pid_t child = fork();
    if (child == 0) _exit(body() ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct Shape {
    const char* name;
    uint32_t width, height;
    PixelFormat format;
    size_t byteCount;
};

class AFormat : public testing::TestWithParam<Shape> {};

TEST_P(AFormat, DecidesTheMemory) {
    const Shape& shape = GetParam();
    const sp<GraphicBuffer> buffer(new GraphicBuffer(shape.width, shape.height, shape.format, 1, kReadWrite));
    ASSERT_EQ(NO_ERROR, buffer->initCheck());
    EXPECT_EQ(shape.byteCount, buffer->getByteCount());
    EXPECT_EQ(shape.width, buffer->getStride());
    uint8_t* const pixels = lockOrFail(buffer, kReadWrite);
    pixels[0] = 1;
    pixels[shape.byteCount - 1] = 2;  // the last byte is mapped too
    EXPECT_EQ(NO_ERROR, buffer->unlock());
}

INSTANTIATE_TEST_SUITE_P(
    All, AFormat,
    testing::Values(Shape{"rawOpaque", 3110496, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE, 3110496},
                    Shape{"blob", 5000, 1, HAL_PIXEL_FORMAT_BLOB, 5000},
                    Shape{"rgba", 640, 480, HAL_PIXEL_FORMAT_RGBA_8888, 640 * 480 * 4},
                    Shape{"rgb", 7, 3, HAL_PIXEL_FORMAT_RGB_888, 63},
                    Shape{"rgb565", 7, 3, HAL_PIXEL_FORMAT_RGB_565, 42},
                    Shape{"raw16", 7, 3, HAL_PIXEL_FORMAT_RAW16, 42},
                    Shape{"yuv420", 640, 480, HAL_PIXEL_FORMAT_YCBCR_420_888, 640 * 480 * 3 / 2},
                    Shape{"yuv420Odd", 3, 3, HAL_PIXEL_FORMAT_YCRCB_420_SP, 9 + 2 * 4},
                    Shape{"cameraNative", 64, 2, HAL_PIXEL_FORMAT_IMPLEMENTATION_DEFINED, 192}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(GraphicBuffer, WithoutMemory_IsZeroSized) {
    const sp<GraphicBuffer> buffer(new GraphicBuffer);
    void* address = nullptr;
    EXPECT_EQ(NO_INIT, buffer->initCheck());
    EXPECT_EQ(0u, buffer->getWidth());
    EXPECT_EQ(BAD_VALUE, buffer->lock(GRALLOC_USAGE_SW_READ_OFTEN, &address));
}

TEST(GraphicBuffer, AllocatedWithAZeroSize_BecomesOneByOne) {
    const sp<GraphicBuffer> buffer(new GraphicBuffer(0, 480, HAL_PIXEL_FORMAT_RGBA_8888, 0, kReadWrite));
    EXPECT_EQ(NO_ERROR, buffer->initCheck());
    EXPECT_EQ(1u, buffer->getWidth());
    EXPECT_EQ(1u, buffer->getHeight());
    EXPECT_EQ(1u, buffer->getLayerCount());
}

TEST(GraphicBuffer, ImpossibleShape_FailsInitCheck) {
    EXPECT_EQ(BAD_VALUE, (sp<GraphicBuffer>(new GraphicBuffer(8, 8, 12345, 1, 0))->initCheck()));
    EXPECT_EQ(BAD_VALUE,
              (sp<GraphicBuffer>(new GraphicBuffer(8, 2, HAL_PIXEL_FORMAT_BLOB, 1, 0))->initCheck()));
    EXPECT_EQ(NO_MEMORY, makeBlob(UINT32_MAX)->initCheck());
    EXPECT_EQ(
        NO_MEMORY,
        (sp<GraphicBuffer>(new GraphicBuffer(65536, 65536, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0))->initCheck()));
}

TEST(GraphicBuffer, InjectedFault_FailsAllocationsOfItsScope) {
    {
        AllocationFault fault(NO_MEMORY, 1);
        EXPECT_EQ(NO_ERROR, makeBlob(16)->initCheck());
        EXPECT_EQ(NO_MEMORY, makeBlob(16)->initCheck());
        EXPECT_EQ(0u, makeBlob(16)->getWidth());
    }
    EXPECT_EQ(NO_ERROR, makeBlob(16)->initCheck());
}

TEST(GraphicBuffer, Lock_GivesTheSameZeroedMemoryEachTime) {
    const sp<GraphicBuffer> buffer = makeBlob(4096);
    uint8_t* const first = lockOrFail(buffer, GRALLOC_USAGE_SW_WRITE_OFTEN);
    EXPECT_EQ(0, first[4095]);
    memset(first, 0x5A, 4096);
    EXPECT_EQ(first, lockOrFail(buffer, GRALLOC_USAGE_SW_READ_OFTEN)) << "locks may nest";
    EXPECT_EQ(NO_ERROR, buffer->unlock());
    EXPECT_EQ(NO_ERROR, buffer->unlock());
    EXPECT_EQ(BAD_VALUE, buffer->unlock()) << "one unlock for each lock";
    EXPECT_EQ(0x5A, lockOrFail(buffer, GRALLOC_USAGE_SW_READ_OFTEN)[4095]);
}

TEST(GraphicBuffer, Lock_RefusesRectanglesOutsideAndMissingUsage) {
    const sp<GraphicBuffer> buffer = makeBlob(64, GRALLOC_USAGE_SW_WRITE_RARELY);
    void* address = nullptr;
    const uint32_t write = GRALLOC_USAGE_SW_WRITE_OFTEN;
    EXPECT_EQ(NO_ERROR, buffer->lock(write, Rect(0, 0, 64, 1), &address));
    EXPECT_EQ(BAD_VALUE, buffer->lock(write, Rect(0, 0, 65, 1), &address));
    EXPECT_EQ(BAD_VALUE, buffer->lock(write, Rect(-1, 0, 64, 1), &address));
    EXPECT_EQ(BAD_VALUE, buffer->lock(write, Rect(0, 0, 64, 2), &address));
    EXPECT_EQ(BAD_VALUE, buffer->lock(GRALLOC_USAGE_SW_READ_OFTEN, &address)) << "not allocated for reading";
    EXPECT_EQ(BAD_VALUE, buffer->lock(write, nullptr));
}

TEST(GraphicBuffer, Lock_TellsBytesOfPackedFormatsOnly) {
    void* address = nullptr;
    int32_t perPixel = 0;
    int32_t perRow = 0;
    const sp<GraphicBuffer> packed(new GraphicBuffer(10, 4, HAL_PIXEL_FORMAT_RGBA_8888, 1, kReadWrite));
    ASSERT_EQ(NO_ERROR, packed->lock(kReadWrite, &address, &perPixel, &perRow));
    EXPECT_EQ(4, perPixel);
    EXPECT_EQ(40, perRow);
    const sp<GraphicBuffer> planar(new GraphicBuffer(10, 4, HAL_PIXEL_FORMAT_YCBCR_420_888, 1, kReadWrite));
    ASSERT_EQ(NO_ERROR, planar->lock(kReadWrite, &address, &perPixel, &perRow));
    EXPECT_EQ(-1, perPixel);
    EXPECT_EQ(-1, perRow);
}

TEST(GraphicBuffer, FirstLocksOfManyThreads_MapOnce) {
    const sp<GraphicBuffer> buffer = makeBlob(4096);
    std::vector<uint8_t*> addresses(4);
    std::vector<std::thread> threads;
    for (uint8_t*& address : addresses)
        threads.emplace_back([&] { address = lockOrFail(buffer, GRALLOC_USAGE_SW_READ_OFTEN); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(1u, std::set<uint8_t*>(addresses.begin(), addresses.end()).size());
}

TEST(GraphicBuffer, EndOfTheBuffer_UnmapsItsMemory) {
    const auto isMapped = [] {
        std::ifstream maps("/proc/self/maps");
        const std::string text((std::istreambuf_iterator<char>(maps)), std::istreambuf_iterator<char>());
        return text.find("memfd:buffer-under-test") != std::string::npos;
    };
    sp<GraphicBuffer> buffer(
        new GraphicBuffer(64, 1, HAL_PIXEL_FORMAT_BLOB, 1, kReadWrite, "buffer-under-test"));
    EXPECT_FALSE(isMapped()) << "mapped at the first lock only";
    lockOrFail(buffer, GRALLOC_USAGE_SW_READ_OFTEN);
    EXPECT_TRUE(isMapped());
    buffer.clear();
    EXPECT_FALSE(isMapped());
}

TEST(GraphicBuffer, NeedsReallocation_ForAnotherShapeOrMoreUsage) {
    const sp<GraphicBuffer> buffer(new GraphicBuffer(8, 4, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0x33));
    EXPECT_FALSE(buffer->needsReallocation(8, 4, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0x30));
    EXPECT_TRUE(buffer->needsReallocation(9, 4, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0x30));
    EXPECT_TRUE(buffer->needsReallocation(8, 5, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0x30));
    EXPECT_TRUE(buffer->needsReallocation(8, 4, HAL_PIXEL_FORMAT_RGBX_8888, 1, 0x30));
    EXPECT_TRUE(buffer->needsReallocation(8, 4, HAL_PIXEL_FORMAT_RGBA_8888, 2, 0x30));
    EXPECT_TRUE(buffer->needsReallocation(8, 4, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0x100));
    const sp<GraphicBuffer> guarded(
        new GraphicBuffer(8, 4, HAL_PIXEL_FORMAT_RGBA_8888, 1, GRALLOC_USAGE_PROTECTED));
    EXPECT_TRUE(guarded->needsReallocation(8, 4, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0));
}

TEST(GraphicBuffer, HardwareBuffer_IsTheSameObjectWithoutAReference) {
    const sp<GraphicBuffer> buffer = makeBlob(16);
    AHardwareBuffer* const other = buffer->toAHardwareBuffer();
    EXPECT_EQ(buffer.get(), GraphicBuffer::fromAHardwareBuffer(other));
    EXPECT_EQ(1, buffer->getStrongCount());
    EXPECT_EQ(nullptr, GraphicBuffer::fromAHardwareBuffer(static_cast<AHardwareBuffer*>(nullptr)));

    AHardwareBuffer_acquire(other);
    EXPECT_EQ(2, buffer->getStrongCount());
    AHardwareBuffer_release(other);
    EXPECT_EQ(1, buffer->getStrongCount());
}

TEST(HardwareBuffer, AllocateDescribeLock) {
    AHardwareBuffer_Desc asked{};
    asked.width = 100;
    asked.height = 1;
    asked.layers = 1;
    asked.format = HAL_PIXEL_FORMAT_RAW_OPAQUE;
    asked.usage = AHARDWAREBUFFER_USAGE_CPU_READ_OFTEN | AHARDWAREBUFFER_USAGE_CPU_WRITE_OFTEN;
    AHardwareBuffer* buffer = nullptr;
    ASSERT_EQ(0, AHardwareBuffer_allocate(&asked, &buffer));
    AHardwareBuffer_Desc told;
    AHardwareBuffer_describe(buffer, &told);
    EXPECT_EQ(asked.width, told.width);
    EXPECT_EQ(asked.usage, told.usage);
    EXPECT_EQ(100u, told.stride);

    SignalFence ready;
    std::thread signaller([&] { ready.signal(); });
    void* address = nullptr;
    EXPECT_EQ(0, AHardwareBuffer_lock(buffer, AHARDWAREBUFFER_USAGE_CPU_WRITE_OFTEN, ready.fence()->dup(),
                                      nullptr, &address));
    EXPECT_EQ(NO_ERROR, ready.fence()->wait(0)) << "the lock waits for its fence";
    signaller.join();
    int32_t fence = 5;
    EXPECT_EQ(0, AHardwareBuffer_unlock(buffer, &fence));
    EXPECT_EQ(-1, fence);
    EXPECT_EQ(-EINVAL, AHardwareBuffer_lock(nullptr, 0, -1, nullptr, &address));
    EXPECT_EQ(-EINVAL, AHardwareBuffer_allocate(nullptr, &buffer));
    AHardwareBuffer_release(buffer);
}

TEST(GraphicBufferSharing, ImportedBuffer_IsTheSameMemoryAndId) {
    const sp<GraphicBuffer> original = makeBlob(4096);
    sp<GraphicBuffer> imported = GraphicBuffer::importFrom(original->handle, original->attributes());
    ASSERT_NE(nullptr, imported);
    EXPECT_NE(original, imported);
    EXPECT_EQ(original->getId(), imported->getId());
    EXPECT_EQ(original->getUsage(), imported->getUsage());
    lockOrFail(imported, GRALLOC_USAGE_SW_WRITE_OFTEN)[7] = 42;
    imported.clear();
    EXPECT_EQ(42, lockOrFail(original, GRALLOC_USAGE_SW_READ_OFTEN)[7]);
}

TEST(GraphicBufferSharing, ImportedBuffer_OutlivesTheOriginal) {
    sp<GraphicBuffer> original = makeBlob(64);
    lockOrFail(original, GRALLOC_USAGE_SW_WRITE_OFTEN)[63] = 9;
    const sp<GraphicBuffer> imported = GraphicBuffer::importFrom(original->handle, original->attributes());
    original.clear();
    EXPECT_EQ(9, lockOrFail(imported, GRALLOC_USAGE_SW_READ_OFTEN)[63]);
}

TEST(GraphicBufferSharing, OtherProcess_WritesIntoIt) {
    const sp<GraphicBuffer> buffer = makeBlob(4096);
    EXPECT_TRUE(inOtherProcess([&] {
        const sp<GraphicBuffer> imported = GraphicBuffer::importFrom(buffer->handle, buffer->attributes());
        void* address = nullptr;
        if (imported == nullptr || imported->getId() != buffer->getId()) return false;
        if (imported->lock(GRALLOC_USAGE_SW_WRITE_OFTEN, &address) != NO_ERROR) return false;
        memset(address, 0x77, 4096);
        return true;
    }));
    EXPECT_EQ(0x77, lockOrFail(buffer, GRALLOC_USAGE_SW_READ_OFTEN)[4095]);
}

TEST(GraphicBufferSharing, Ids_DifferWithinAndAcrossProcesses) {
    std::set<uint64_t> ids;
    for (int i = 0; i < 100; i++)
        ids.insert(makeBlob(1)->getId());
    EXPECT_EQ(100u, ids.size());
    EXPECT_TRUE(inOtherProcess([&] {
        const uint64_t other = makeBlob(1)->getId();
        return ids.count(other) == 0 && other >> 32 != *ids.begin() >> 32;
    }));
}

TEST(GraphicBufferSharing, OtherHolders_CannotResizeTheMemory) {
    const sp<GraphicBuffer> buffer = makeBlob(4096);
    EXPECT_EQ(-1, ftruncate(buffer->handle->data[0], 16));
    EXPECT_EQ(EPERM, errno);
    EXPECT_EQ(-1, ftruncate(buffer->handle->data[0], 1 << 20));
}

TEST(GraphicBufferSharing, Import_RefusesWhatCouldFaultLater) {
    const sp<GraphicBuffer> original = makeBlob(4096);
    GraphicBuffer::Attributes attributes = original->attributes();
    EXPECT_EQ(nullptr, GraphicBuffer::importFrom(nullptr, attributes));

    attributes.width = attributes.stride = 4097;
    EXPECT_EQ(nullptr, GraphicBuffer::importFrom(original->handle, attributes)) << "memory too small";
    attributes.width = attributes.stride = 0;
    EXPECT_EQ(nullptr, GraphicBuffer::importFrom(original->handle, attributes));
    attributes.width = 16;
    attributes.stride = 4096;
    EXPECT_EQ(nullptr, GraphicBuffer::importFrom(original->handle, attributes)) << "rows of another length";
    attributes = original->attributes();
    attributes.format = 12345;
    EXPECT_EQ(nullptr, GraphicBuffer::importFrom(original->handle, attributes));

    attributes = original->attributes();
    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = memfd_create("shrinkable", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    ASSERT_EQ(0, ftruncate(handle->data[0], 4096));
    EXPECT_EQ(nullptr, GraphicBuffer::importFrom(handle, attributes)) << "could be shrunk under the reader";
    ASSERT_EQ(0, fcntl(handle->data[0], F_ADD_SEALS, F_SEAL_SHRINK));
    EXPECT_NE(nullptr, GraphicBuffer::importFrom(handle, attributes));
    native_handle_close(handle);
    native_handle_delete(handle);
}

}  // namespace
