#pragma once

#include <android-base/unique_fd.h>

#include <string>
#include <vector>

#include "FrameView.h"
#include "Y4mReader.h"

namespace vel::sim {

/**
 * Writes frames as a YUV4MPEG2 stream. Of frames of odd size the last column or row, which has no chroma, is
 * left out. Memory is constant: nothing for even sizes, one frame for odd ones.
 *
 * A failure (disk full, a pipe's reader gone, ...) is thrown as std::runtime_error with one line that names
 * the file; the writer cannot be used any more then. A reader's end never raises SIGPIPE.
 */
class Y4mWriter {
  public:
    /**
     * Creates or empties the file and writes the header; a rate of 0 frames is written as unknown. Throws
     * std::invalid_argument when the size is none.
     */
    Y4mWriter(const std::string& file, FrameSize size, FrameRate rate);

    /**
     * Writes a frame of the writer's size, blocking as long as the file does. Throws std::invalid_argument
     * for another size.
     */
    void writeFrame(const ConstFrameView& frame);

    /**
     * Closes the file, which reports what was only then found out. Without it the destructor closes silently.
     */
    void close();

  private:
    void write(const void* bytes, size_t count);
    [[noreturn]] void fail(int error) const;

    const std::string mFile;
    const FrameSize mSize;
    android::base::unique_fd mFd;
    std::vector<uint8_t> mEvenPart;  // for odd sizes
};

}  // namespace vel::sim
