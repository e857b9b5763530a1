// Strings and handles of the HIDL runtime.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HidlSupport.h>
#include <unistd.h>

#include <utility>

namespace {

using android::hardware::hidl_handle;
using android::hardware::hidl_string;

TEST(AHidlString, OwnsACopyUnlessSetToExternal) {
    char buffer[] = "abc";
    const hidl_string copied(buffer);
    hidl_string external;
    external.setToExternal(buffer, 3);
    const hidl_string copyOfExternal = external;
    hidl_string assigned;
    assigned = external;
    buffer[0] = 'X';
    EXPECT_EQ(copied, "abc");
    EXPECT_EQ(external, "Xbc");
    EXPECT_EQ(copyOfExternal, "abc");
    EXPECT_EQ(assigned, "abc");
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

native_handle_t* newHandle() {
    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = open("/dev/null", O_RDONLY);
    return handle;
}

TEST(AHidlHandle, BorrowsAPointerDuplicatesWhenCopiedAndClosesWhatItOwns) {
    native_handle_t* const native = newHandle();
    const int fd = native->data[0];
    hidl_handle owner;
    {
        const hidl_handle borrowed = native;
        owner = borrowed;
        EXPECT_EQ(borrowed.getNativeHandle(), native);
    }
    const int duplicate = owner->data[0];
    EXPECT_NE(duplicate, fd);
    EXPECT_TRUE(isOpen(duplicate));
    owner.setTo(native, true);
    EXPECT_FALSE(isOpen(duplicate));
    hidl_handle next = std::move(owner);
    EXPECT_EQ(owner.getNativeHandle(), nullptr);
    EXPECT_TRUE(isOpen(fd));
    next = nullptr;
    EXPECT_FALSE(isOpen(fd));
}

}  // namespace
