#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>

class VelChiDesktopHelper;

namespace vel::sim {

class FrameSession;
class PictureTap;

/**
 * The frames of the camera: up to four streams that go through image substitution, and a preview beside them
 * on the application frame path. Prints what happens. execute(), end() and the destructor from one thread.
 */
class FrameSensor {
  public:
    explicit FrameSensor(VelChiDesktopHelper* helper);
    /** Ends frames that run. */
    ~FrameSensor();

    /** True for lines that execute() understands: those that begin with the word frames. */
    static bool isCommand(const std::string& line);

    /**
     * "frames CAMERA [size=1920x1080] [streams=1] [fps=30] [count=0] [input=FILE] [output=FILE]
     * [sheet=FILE] [loop=0]"
     * starts frames: it says that they are ready, waits until the application has configured them, and
     * streams. Count 0 has no end but "frames end", which waits for it. An input gives stream 0 its pictures
     * and the size; "-" is YUV4MPEG2 from the descriptor that setStream() gave. With an input or an output
     * no frame is repeated or dropped. "frames end-node" ends the substitution node as a HAL does that goes
     * on without it: the frames have no replacements from then on. The last line tells how it ended: "frames
     * ended: well", or the reason. False, said in an error line, when the line is not understood or frames
     * run already.
     */
    bool execute(const std::string& line);

    /** Ends the frames that run, and waits for it. Frames of an input have then failed. */
    void end();
    /**
     * Tells the frames that run, and those that are begun later, to end, and does not wait for it. They have
     * failed in any case: no output is left. Any thread.
     */
    void abort();

    /** The descriptor behind the input "-"; -1 for none. It stays the caller's. */
    void setStream(int fd) { mStreamFd = fd; }

    /** Gets the frames from then on; null for none. It must outlive them. */
    void setPictures(PictureTap* pictures) { mPictures = pictures; }

  private:
    void setSession(const std::shared_ptr<FrameSession>& session);

    VelChiDesktopHelper* const mHelper;
    int mStreamFd = -1;
    PictureTap* mPictures = nullptr;
    std::mutex mLock;
    std::shared_ptr<FrameSession> mSession;  // changed under mLock, by execute() and end() alone
    bool mIsAborted = false;                 // guarded by mLock
    std::thread mThread;
};

}  // namespace vel::sim
