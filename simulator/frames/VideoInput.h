#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <memory>
#include <string>

#include "Y4mReader.h"

namespace vel::sim {

/**
 * Frames of a video file or picture, decoded by a child ffmpeg as they are asked for, or of a YUV4MPEG2 file
 * or stream of 8-bit 4:2:0, which is read as it stands. Memory is constant.
 *
 * The child is started as spawn() says, and killed and reaped by the destructor. For one thread, the one that
 * constructs this object.
 */
class VideoInput {
  public:
    /**
     * Opens the file and waits for the first bytes. Throws std::runtime_error with one line when it cannot be
     * read: no such file, no video, a picture of odd size, ffmpeg is missing, ... The file's content decides
     * what it is, not its name. Every wait ends, with such an error, once the descriptor to cancel by is
     * readable; it stays the caller's.
     */
    explicit VideoInput(const std::string& file, int cancelFd = -1);
    /** The same for a YUV4MPEG2 stream behind a descriptor that stays the caller's; name stands in errors. */
    VideoInput(int stream, const std::string& name, int cancelFd = -1);
    ~VideoInput();
    VideoInput(const VideoInput&) = delete;
    VideoInput& operator=(const VideoInput&) = delete;

    FrameSize size() const { return mReader->size(); }
    FrameRate rate() const { return mReader->rate(); }

    /**
     * Waits for the next frame, into a view of size(). False at the end; a picture ends after one frame.
     * Throws std::runtime_error when the input breaks off or reading was cancelled.
     */
    bool readFrame(const FrameView& frame);

    /**
     * What ffmpeg complained about up to now although it went on, for example of a damaged file, as one line;
     * empty as a rule. Complete once readFrame() has returned false.
     */
    std::string complaint() const;

  private:
    /** The child, killed and reaped with this object. */
    struct Decoder {
        ~Decoder();
        pid_t pid = -1;
    };

    void openFile(const std::string& file);
    void startDecoder(int input);
    size_t readData(void* to, size_t count);
    bool waitReadable(int data) const;
    void readErrors();
    void finishDecoder();
    [[noreturn]] void fail(const std::string& what) const;

    const std::string mName;
    const int mCancelFd;
    Decoder mDecoder;
    android::base::unique_fd mData;
    android::base::unique_fd mErrors;  // of the decoder, until it closes them
    std::string mErrorText;
    bool mAnyData = false;
    std::unique_ptr<Y4mReader> mReader;
};

}  // namespace vel::sim
