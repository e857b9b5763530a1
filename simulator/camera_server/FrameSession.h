#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ContactSheet.h"
#include "FrameFiles.h"
#include "FrameSetup.h"
#include "FrameStream.h"
#include "StopSignal.h"

class VelChiDesktopHelper;

namespace vel::sim {

class PictureTap;

/**
 * The frames of one command, from their start to the closing table: the streams, each on a thread, the
 * preview beside them, and the files. Prints what happens.
 */
class FrameSession {
  public:
    /**
     * streamFd: behind the input "-"; it stays the caller's. pictures: gets the frames, unless it is null.
     * Throws std::system_error without descriptors.
     */
    FrameSession(VelChiDesktopHelper* helper, const FrameSetup& setup, int streamFd, PictureTap* pictures);

    /** Plays the frames to their end. Never throws: tells the outcome in a line. */
    void run();
    /** Ends the frames early, which is a failure of those that are aborted or have an input. Any thread. */
    void stop(bool isAborted);
    /** Ends the substitution node while the frames go on. Waits for those that are under way. Any thread. */
    void endNode();
    /** Whether run() has told the outcome, or is about to. Any thread. */
    bool isOver() const { return mIsOver; }

  private:
    void play();
    void openFiles();
    void makeStreams();
    FrameStream::Setup streamSetup(uint32_t index);
    void streamToTheEnd();
    void runStream(FrameStream& stream);
    void endStream();
    void output(const FrameHeader& captured, const ConstFrameView& picture,
                const std::optional<FrameHeader>& replacement, const std::optional<ConstFrameView>& replaced);
    void judge();
    void finishFiles();
    void fail(const std::string& why);

    VelChiDesktopHelper* const mHelper;
    const FrameSetup mSetup;
    const int mStreamFd;
    PictureTap* const mPictures;
    const android::base::unique_fd mCancel;  // ends the waits for input
    std::unique_ptr<PictureSource> mSource;
    std::unique_ptr<OutputFile> mOutput;
    std::vector<std::unique_ptr<FrameStream>> mStreams;
    uint64_t mPreviewFrames = 0;
    StopSignal mStop;        // ends the streams
    StopSignal mStreamsEnd;  // the streams have ended
    std::atomic<size_t> mRunning{0};
    std::atomic<bool> mIsOver{false};
    std::atomic<bool> mIsNodeGone{false};
    std::mutex mLock;
    ContactSheet mSheet;   // guarded by mLock
    std::string mProblem;  // guarded by mLock; the first one
};

}  // namespace vel::sim
