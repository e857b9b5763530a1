#include "WireTypes.h"

#include <fcntl.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "DesktopBusNames.h"

namespace vel::desktop_bus {
namespace {

using android::base::unique_fd;

// Without these a peer could change or shorten the text while it is read.
constexpr int kSeals = F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW;

// The length of the well-formed character at the start, 0 when there is none. As strict as the bus: overlong
// forms, surrogates, non-characters and NUL are refused.
size_t utf8CharacterLength(const unsigned char* text, size_t size) {
    if (text[0] < 0x80) return text[0] != 0 ? 1 : 0;
    const size_t length = text[0] >= 0xf0 ? 4 : text[0] >= 0xe0 ? 3 : 2;
    if (text[0] < 0xc2 || text[0] > 0xf4 || size < length) return 0;
    uint32_t character = text[0] & (0x7fu >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((text[i] & 0xc0) != 0x80) return 0;
        character = character << 6 | (text[i] & 0x3fu);
    }
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = character >= 0xd800 && character <= 0xdfff;
    const bool isNonCharacter =
        (character & 0xfffe) == 0xfffe || (character >= 0xfdd0 && character <= 0xfdef);
    if (character < kSmallest[length] || character > 0x10ffff || isSurrogate || isNonCharacter) return 0;
    return length;
}

bool fitsString(const char* data, size_t size) {
    if (size > kMaxInlineBytes) return false;
    const auto* text = reinterpret_cast<const unsigned char*>(data);
    for (size_t i = 0; i < size;) {
        const size_t length = utf8CharacterLength(text + i, size - i);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t count = ::write(fd, data, size);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        data += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

bool readAll(int fd, char* data, size_t size) {
    off_t offset = 0;
    while (size > 0) {
        const ssize_t count = ::pread(fd, data, size, offset);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        data += count;
        offset += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

bool holdsSealed(int fd, uint64_t size) {
    const int seals = fcntl(fd, F_GET_SEALS);
    if (seals < 0 || (seals & kSeals) != kSeals) return false;
    struct stat status = {};
    return fstat(fd, &status) == 0 && static_cast<uint64_t>(status.st_size) >= size;
}

}  // namespace

void InterfaceObject::write(sdbus::Message& message) const {
    message << sdbus::make_struct(busName, sdbus::ObjectPath(isNull() ? "/" : path));
}

InterfaceObject InterfaceObject::read(sdbus::Message& message) {
    sdbus::Struct<std::string, sdbus::ObjectPath> value;
    message >> value;
    if (std::get<0>(value).empty()) {
        if (std::get<1>(value) == "/") return {};
        throw sdbus::Error(kErrorInvalidArgs, std::get<1>(value) + " is an object of no process");
    }
    return {std::get<0>(value), std::get<1>(value)};
}

std::optional<WireText> WireText::encode(const char* data, size_t size) {
    WireText text;
    if (fitsString(data, size)) {
        text.mInline.assign(data, size);
        return text;
    }
    if (size > kMaxTextBytes) return std::nullopt;
    unique_fd memory(memfd_create("desktop-text", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (memory < 0 || !writeAll(memory, data, size)) return std::nullopt;
    if (fcntl(memory, F_ADD_SEALS, kSeals | F_SEAL_SEAL) != 0) return std::nullopt;
    text.mMemory = std::make_shared<const unique_fd>(std::move(memory));
    text.mSize = size;
    return text;
}

std::optional<std::string> WireText::decode() const {
    if (!mMemory) {
        if (mInline.size() > kMaxTextBytes) return std::nullopt;
        return mInline;
    }
    if (mSize > kMaxTextBytes || !holdsSealed(mMemory->get(), mSize)) return std::nullopt;
    std::string text(mSize, '\0');
    if (!readAll(mMemory->get(), text.data(), text.size())) return std::nullopt;
    return text;
}

void WireText::write(sdbus::Message& message) const {
    if (!mMemory) {
        message.openVariant("s");
        message << mInline;
        message.closeVariant();
        return;
    }
    message.openVariant("(ht)");
    message << sdbus::make_struct(sdbus::UnixFd(mMemory->get()), mSize);
    message.closeVariant();
}

WireText WireText::read(sdbus::Message& message) {
    WireText text;
    try {
        // Asking for the type first would not do: Message::peekType cannot stand a value that is no
        // container.
        message.enterVariant("s");
        message >> text.mInline;
    } catch (const sdbus::Error&) {
        sdbus::Struct<sdbus::UnixFd, uint64_t> memory;
        message.enterVariant("(ht)");
        message >> memory;
        text.mMemory = std::make_shared<const unique_fd>(std::get<0>(memory).release());
        text.mSize = std::get<1>(memory);
    }
    message.exitVariant();
    return text;
}

}  // namespace vel::desktop_bus
