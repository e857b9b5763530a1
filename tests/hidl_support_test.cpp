// Strings, sequences and handles of the HIDL runtime.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HidlSupport.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using android::hardware::hidl_handle;
using android::hardware::hidl_string;
using android::hardware::hidl_vec;

const std::string kWithNul("a\0b", 3);

TEST(AHidlString, KeepsBytesAfterANul) {
    const hidl_string text = kWithNul;
    const hidl_string copy(text);
    hidl_string assigned("x");
    assigned = copy;
    EXPECT_EQ(std::string(assigned), kWithNul);
    EXPECT_EQ(assigned.size(), 3u);
    EXPECT_EQ(assigned.c_str()[3], '\0');
    EXPECT_EQ(std::string(hidl_string("abc", 2)), "ab");
}

TEST(AHidlString, ComparesUpToTheFirstNul) {
    EXPECT_EQ(hidl_string(kWithNul), "a");
    EXPECT_EQ("a", hidl_string("a"));
    EXPECT_NE(hidl_string("a"), hidl_string("b"));
    EXPECT_LT(hidl_string("a"), hidl_string("b"));
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
}

TEST(AHidlString, IsEmptyAfterAMoveAndAfterNull) {
    hidl_string source("abc");
    const hidl_string target = std::move(source);
    EXPECT_EQ(target, "abc");
    EXPECT_TRUE(source.empty());
    EXPECT_STREQ(source.c_str(), "");
    EXPECT_TRUE(hidl_string(static_cast<const char*>(nullptr)).empty());
    hidl_string cleared("abc");
    cleared.clear();
    EXPECT_TRUE(cleared.empty());
}

TEST(AHidlString, SurvivesBeingAssignedItsOwnBytes) {
    hidl_string text("abcdef");
    text = text.c_str() + 2;
    EXPECT_EQ(text, "cdef");
    const hidl_string& same = text;
    text = same;
    EXPECT_EQ(text, "cdef");
}

TEST(AHidlVec, CopiesMovesAndResizes) {
    hidl_vec<hidl_string> values = {"one", "two"};
    hidl_vec<hidl_string> copy(values);
    copy.resize(3);
    copy[0] = "changed";
    EXPECT_EQ(values[0], "one");
    EXPECT_EQ(copy[1], "two");
    EXPECT_EQ(copy[2], "");
    const hidl_vec<hidl_string> moved(std::move(copy));
    EXPECT_EQ(moved.size(), 3u);
    EXPECT_EQ(copy.size(), 0u);
    EXPECT_NE(moved, values);

    const hidl_vec<int> numbers = std::vector<int>{1, 2, 3};
    EXPECT_EQ(static_cast<std::vector<int>>(numbers), (std::vector<int>{1, 2, 3}));
}

TEST(AHidlVec, BorrowsExternalElementsUntilItGrows) {
    int elements[] = {1, 2};
    hidl_vec<int> values;
    values.setToExternal(elements, 2);
    values[0] = 5;
    EXPECT_EQ(elements[0], 5);
    values.resize(3);
    values[0] = 6;
    EXPECT_EQ(elements[0], 5);
    EXPECT_EQ(values[1], 2);
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

native_handle_t* handleOf(int fd) {
    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = fd;
    return handle;
}

TEST(AHidlHandle, BorrowsAPointerAndDuplicatesWhenCopied) {
    native_handle_t* native = handleOf(open("/dev/null", O_RDONLY));
    int duplicate = -1;
    {
        const hidl_handle borrowed = native;
        const hidl_handle copy = borrowed;
        duplicate = copy->data[0];
        EXPECT_NE(duplicate, native->data[0]);
        EXPECT_TRUE(isOpen(duplicate));
        EXPECT_EQ(borrowed.getNativeHandle(), native);
    }
    EXPECT_FALSE(isOpen(duplicate));
    EXPECT_TRUE(isOpen(native->data[0]));
    native_handle_close(native);
    native_handle_delete(native);
}

TEST(AHidlHandle, ClosesWhatItShouldOwn) {
    const int fd = open("/dev/null", O_RDONLY);
    hidl_handle owner;
    owner.setTo(handleOf(fd), true);
    hidl_handle next = std::move(owner);
    EXPECT_EQ(owner.getNativeHandle(), nullptr);
    EXPECT_TRUE(isOpen(fd));
    next = nullptr;
    EXPECT_FALSE(isOpen(fd));
}

}  // namespace
