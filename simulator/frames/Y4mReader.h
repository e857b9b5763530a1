#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "FrameView.h"

namespace vel::sim {

/** Frames a second as a fraction; 0/1 when unknown. */
struct FrameRate {
    int frames = 0;
    int seconds = 1;
};

// Where bytes come from: reads at least one byte and at most that many, waiting for them, and returns how
// many; 0 at the end. Throws std::runtime_error when reading fails.
using ReadBytes = std::function<size_t(void*, size_t)>;

/** Reads from a descriptor that stays the caller's. */
ReadBytes readFrom(int fd);

/**
 * Whether these first bytes are those of a YUV4MPEG2 stream whose chroma is the one that Y4mReader
 * understands.
 */
bool beginsPlainY4m(const std::string& start);

/**
 * Reads a YUV4MPEG2 stream a frame at a time, in constant memory. Understood are 8-bit 4:2:0 pictures of even
 * width and height up to kMaxFrameSide; interlaced material is read as it stands, and unknown fields are
 * passed over. Every error is a std::runtime_error with one line that begins with the stream's name.
 */
class Y4mReader {
  public:
    /**
     * Reads the header. Throws when there is none, when it is broken, or when it announces pictures that are
     * not understood.
     */
    Y4mReader(const std::string& name, ReadBytes read);

    FrameSize size() const { return mSize; }
    FrameRate rate() const { return mRate; }

    /**
     * Reads the next frame into a view of size(). False at the end of the stream. Throws when the stream ends
     * inside the frame or without any, or goes on with something else; the view then holds a part of the
     * frame.
     */
    bool readFrame(const FrameView& frame);

  private:
    bool fill();
    bool readLine(const std::string& word, std::string& line);
    std::string place() const;
    size_t readBytes(uint8_t* to, size_t count);
    void parseHeader(const std::string& header);
    void parseField(char tag, const std::string& value);
    [[noreturn]] void fail(const std::string& what) const;

    const std::string mName;
    const ReadBytes mRead;
    FrameSize mSize;
    FrameRate mRate;
    uint64_t mFrames = 0;  // read so far
    std::array<uint8_t, 4096> mBuffer{};
    size_t mBufferStart = 0;
    size_t mBufferEnd = 0;
};

}  // namespace vel::sim
