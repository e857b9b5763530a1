#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "FrameSetup.h"
#include "FrameStream.h"
#include "VideoInput.h"
#include "Y4mWriter.h"

namespace vel::sim {

/** Where the pictures of the streams come from: a video for stream 0, else a test picture for each stream. */
class PictureSource {
  public:
    /**
     * Opens the input, and waits for its start, when the setup has one. The stream stands behind the input
     * "-". Both descriptors stay the caller's; waits for input end once the one to cancel by is readable.
     * Throws std::runtime_error with one line when the input cannot be read.
     */
    PictureSource(const FrameSetup& setup, int streamFd, int cancelFd);

    bool isVideo() const { return mVideo != nullptr; }
    /** The input's size and rate, or those of the setup. */
    FrameSize size() const { return mVideo ? mVideo->size() : mSize; }
    FrameRate rate() const { return mVideo ? mVideo->rate() : mRate; }

    /** What the streams are paced by; 0 for the replacements alone. */
    int fps() const;

    /** Reads the input's first frame, before the application hears of any: most faults show by then. */
    void readFirst();
    /** Draws the frames of a stream, in order, from then on. */
    FrameStream::Draw drawing(uint32_t stream);
    /** Whether the next frame of the input is waited for. Any thread. */
    bool isWaiting() const { return mIsWaiting; }
    /** What the input's decoder complained about although it went on; empty as a rule. */
    std::string complaint() const { return mVideo ? mVideo->complaint() : ""; }

  private:
    bool drawVideo(const FrameView& frame);
    bool readFrame(const FrameView& frame);
    bool readAnew(const FrameView& frame);

    const FrameSize mSize;
    const FrameRate mRate;
    const std::string mLoopedFile;  // that is played over and over; empty for none
    const int mCancelFd;
    std::unique_ptr<VideoInput> mVideo;
    std::atomic<bool> mIsWaiting{false};
    std::vector<uint8_t> mFirst;  // the input's first frame, until it is drawn, or for good when it is looped
    bool mIsFirstNext = true;
    bool mIsPicture = true;  // as long as no second frame was read
};

/** The file of replaced frames; gone again unless it was finished. Throws as Y4mWriter does. */
class OutputFile {
  public:
    OutputFile(const std::string& file, FrameSize size, FrameRate rate);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(const ConstFrameView& frame) { mWriter.writeFrame(frame); }
    void finish();

    /** Removes the outputs that are not finished, for a process that ends at once. Any thread. */
    static void removeUnfinished();

  private:
    const std::string mFile;
    Y4mWriter mWriter;
};

/** Whether both names stand for one regular file. */
bool isSameFile(const std::string& one, const std::string& other);

}  // namespace vel::sim
