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

sp<GraphicBuffer> import(const sp<GraphicBuffer>& buffer) {
    return GraphicBuffer::importFrom(buffer->handle, buffer->attributes());
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

TEST(AGraphicBuffer, HasTheMemoryOfItsFormat) {
    struct {
        uint32_t width, height;
        PixelFormat format;
        size_t byteCount;
    } const rows[] = {{3110496, 1, HAL_PIXEL_FORMAT_RAW_OPAQUE, 3110496},
                      {5000, 1, HAL_PIXEL_FORMAT_BLOB, 5000},
                      {640, 480, HAL_PIXEL_FORMAT_RGBA_8888, 640 * 480 * 4},
                      {7, 3, HAL_PIXEL_FORMAT_RGB_888, 63},
                      {7, 3, HAL_PIXEL_FORMAT_RAW16, 42},
                      {640, 480, HAL_PIXEL_FORMAT_YCBCR_420_888, 640 * 480 * 3 / 2},
                      {3, 3, HAL_PIXEL_FORMAT_YCRCB_420_SP, 9 + 2 * 4}};
    for (const auto& row : rows) {
        const sp<GraphicBuffer> buffer = make(row.width, row.height, row.format);
        ASSERT_EQ(NO_ERROR, buffer->initCheck());
        EXPECT_EQ(row.byteCount, buffer->getByteCount());
        EXPECT_EQ(row.width, buffer->getStride());
        lockOrFail(buffer, kWrite)[row.byteCount - 1] = 2;  // the last byte is mapped too
    }
    const sp<GraphicBuffer> smallest = make(0, 480, HAL_PIXEL_FORMAT_RGBA_8888);
    EXPECT_EQ(1u, smallest->getWidth());
    EXPECT_EQ(1u, smallest->getHeight());
}

TEST(AGraphicBuffer, WithoutMemoryIsZeroSizedAndSaysWhy) {
    const auto check = [](const sp<GraphicBuffer>& buffer, status_t expected) {
        void* address = nullptr;
        EXPECT_EQ(expected, buffer->initCheck());
        EXPECT_EQ(0u, buffer->getWidth());
        EXPECT_EQ(BAD_VALUE, buffer->lock(kRead, &address));
    };
    check(new GraphicBuffer, NO_INIT);
    check(make(8, 8, 12345), BAD_VALUE);
    check(make(8, 2, HAL_PIXEL_FORMAT_BLOB), BAD_VALUE);
    check(makeBlob(UINT32_MAX), NO_MEMORY);
    check(make(65536, 65536, HAL_PIXEL_FORMAT_RGBA_8888), NO_MEMORY);
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

TEST(AGraphicBuffer, IsMappedFromItsFirstLockToItsEnd) {
    const auto isMapped = [] {
        std::ifstream maps("/proc/self/maps");
        const std::string text((std::istreambuf_iterator<char>(maps)), std::istreambuf_iterator<char>());
        return text.find("memfd:buffer-under-test") != std::string::npos;
    };
    sp<GraphicBuffer> buffer(new GraphicBuffer(64, 1, HAL_PIXEL_FORMAT_BLOB, 1, kRead, "buffer-under-test"));
    EXPECT_FALSE(isMapped());
    lockOrFail(buffer, kRead);
    EXPECT_TRUE(isMapped());
    buffer.clear();
    EXPECT_FALSE(isMapped());
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
    struct {
        bool needed;
        uint32_t width, height;
        PixelFormat format;
        uint32_t layers;
        uint64_t usage;
    } const rows[] = {
        {false, 8, 4, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0x30},
        {true, 9, 4, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0x30},
        {true, 8, 5, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0x30},
        {true, 8, 4, HAL_PIXEL_FORMAT_RGBX_8888, 1, 0x30},
        {true, 8, 4, HAL_PIXEL_FORMAT_RGBA_8888, 2, 0x30},
        {true, 8, 4, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0x100},
    };
    const sp<GraphicBuffer> buffer = make(8, 4, HAL_PIXEL_FORMAT_RGBA_8888, 0x33);
    for (const auto& row : rows) {
        EXPECT_EQ(row.needed,
                  buffer->needsReallocation(row.width, row.height, row.format, row.layers, row.usage));
    }
}

TEST(AGraphicBuffer, IsItsHardwareBufferWithoutAReference) {
    const sp<GraphicBuffer> buffer = makeBlob(16);
    EXPECT_EQ(buffer.get(), GraphicBuffer::fromAHardwareBuffer(buffer->toAHardwareBuffer()));
    EXPECT_EQ(1, buffer->getStrongCount());
}

TEST(AnImportedBuffer, IsTheSameMemoryInThisAndAnotherProcessAndOutlivesTheOriginal) {
    sp<GraphicBuffer> original = makeBlob(4096);
    EXPECT_TRUE(inOtherProcess([&] {
        const sp<GraphicBuffer> imported = import(original);
        void* address = nullptr;
        if (imported == nullptr || imported->getId() != original->getId()) return false;
        if (imported->lock(kWrite, &address) != NO_ERROR) return false;
        memset(address, 0x77, 4096);
        return true;
    }));
    const sp<GraphicBuffer> imported = import(original);
    EXPECT_NE(original, imported);
    EXPECT_EQ(original->getUsage(), imported->getUsage());
    original.clear();
    EXPECT_EQ(0x77, lockOrFail(imported, kRead)[4095]);
}

TEST(AGraphicBuffer, HasAnIdOfItsOwnInEveryProcess) {
    std::set<uint64_t> ids;
    for (int i = 0; i < 100; i++)
        ids.insert(makeBlob(1)->getId());
    EXPECT_EQ(100u, ids.size());
    EXPECT_TRUE(inOtherProcess([&] {
        const uint64_t other = makeBlob(1)->getId();
        return ids.count(other) == 0 && other >> 32 != *ids.begin() >> 32;
    }));
}

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
    EXPECT_EQ(-1, ftruncate(original->handle->data[0], 16)) << "no holder can resize the memory";

    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = memfd_create("shrinkable", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    ASSERT_EQ(0, ftruncate(handle->data[0], 4096));
    EXPECT_EQ(nullptr, GraphicBuffer::importFrom(handle, original->attributes()));
    ASSERT_EQ(0, fcntl(handle->data[0], F_ADD_SEALS, F_SEAL_SHRINK));
    EXPECT_NE(nullptr, GraphicBuffer::importFrom(handle, original->attributes()));
    native_handle_close(handle);
    native_handle_delete(handle);
}

}  // namespace
