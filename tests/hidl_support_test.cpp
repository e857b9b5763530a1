// Strings and handles of the HIDL runtime.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HidlSupport.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace {

using android::hardware::hidl_handle;
using android::hardware::hidl_string;

TEST(AHidlString, KeepsBytesAfterANulButComparesUpToIt) {
    const std::string withNul("a\0b", 3);
    const hidl_string text = withNul;
    hidl_string assigned("x");
    assigned = hidl_string(text);
    EXPECT_EQ(std::string(assigned), withNul);
    EXPECT_EQ(assigned.c_str()[3], '\0');
    EXPECT_EQ(assigned, "a");
    EXPECT_NE(assigned, "b");
}

TEST(AHidlString, OwnsACopyUnlessSetToExternal) {
    char buffer[] = "abc";
    const hidl_string copied(buffer);
    hidl_string external;
    external.setToExternal(buffer, 3);
    const hidl_string copyOfExternal = external;
    buffer[0] = 'X';
    EXPECT_EQ(copied, "abc");
    EXPECT_EQ(external, "Xbc");
    EXPECT_EQ(copyOfExternal, "abc");
    hidl_string source("abc");
    const hidl_string moved = std::move(source);
    EXPECT_EQ(moved, "abc");
    EXPECT_STREQ(source.c_str(), "");
    EXPECT_TRUE(hidl_string(static_cast<const char*>(nullptr)).empty());
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
