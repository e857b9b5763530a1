#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace sdbus {
class Message;
}

namespace vel::desktop_bus {

/**
 * An interface as an argument: the object at a path of the process that has a unique bus name. Travels as
 * "(so)"; null is ("", "/").
 */
struct InterfaceObject {
    std::string busName;
    std::string path;

    bool isNull() const { return busName.empty(); }
    bool operator==(const InterfaceObject& other) const {
        return busName == other.busName && path == other.path;
    }

    /** On the thread of the message's connection; throw sdbus::Error. */
    void write(sdbus::Message& message) const;
    static InterfaceObject read(sdbus::Message& message);
};

/**
 * A text on its way over the bus, as a D-Bus variant: "s" when it is short and valid UTF-8 without NUL, else
 * "(ht)", a sealed memory file and the length, which carries any bytes at one cost.
 *
 * write() and read() belong to the thread of the message's connection; encode() and decode(), which may copy
 * megabytes, to any thread. Copies share the memory file.
 */
class WireText {
  public:
    WireText() = default;  // the empty text

    /** Empty when the text is longer than kMaxTextBytes or no memory file can be made. */
    static std::optional<WireText> encode(const char* data, size_t size);
    /**
     * The text. Empty optional when what arrived is not acceptable: longer than kMaxTextBytes, or not a
     * memory file sealed against change that holds the promised length.
     */
    std::optional<std::string> decode() const;

    /** Throws sdbus::Error when the message does not take it. */
    void write(sdbus::Message& message) const;
    /** Throws sdbus::Error when the next value is neither form. */
    static WireText read(sdbus::Message& message);

  private:
    std::string mInline;
    std::shared_ptr<const android::base::unique_fd> mMemory;  // null: the text is mInline
    uint64_t mSize = 0;                                       // of the text in mMemory
};

}  // namespace vel::desktop_bus
