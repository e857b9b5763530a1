#include "Y4mWriter.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "Timeline.h"

namespace vel::sim {
namespace {

// Holds back the SIGPIPE that this thread's writing may raise.
class NoSigPipe {
  public:
    NoSigPipe() {
        sigset_t pending;
        sigpending(&pending);
        mPendingBefore = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&mPipe);
        sigaddset(&mPipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &mPipe, &mBefore);
    }
    ~NoSigPipe() {
        const timespec now{};
        const int error = errno;
        if (!mPendingBefore) sigtimedwait(&mPipe, nullptr, &now);
        pthread_sigmask(SIG_SETMASK, &mBefore, nullptr);
        errno = error;
    }
    NoSigPipe(const NoSigPipe&) = delete;
    NoSigPipe& operator=(const NoSigPipe&) = delete;

  private:
    sigset_t mPipe;
    sigset_t mBefore;
    bool mPendingBefore;
};

FrameSize evenSize(FrameSize size) {
    return {size.width / 2 * 2, size.height / 2 * 2};
}

}  // namespace

Y4mWriter::Y4mWriter(const std::string& file, FrameSize size, FrameRate rate)
    : mFile(printable(file, 256)), mSize(size) {
    if (!isFrameSize(size)) throw std::invalid_argument(mFile + ": no frame size to write");
    if (evenSize(size) != size) mEvenPart.resize(frameBytes(evenSize(size)));
    mFd.reset(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (mFd < 0) fail(errno);
    const std::string header = "YUV4MPEG2 W" + std::to_string(evenSize(size).width) + " H" +
                               std::to_string(evenSize(size).height) + " F" + std::to_string(rate.frames) +
                               ":" + std::to_string(rate.frames == 0 ? 0 : rate.seconds) +
                               " Ip A1:1 C420jpeg\n";
    write(header.data(), header.size());
}

void Y4mWriter::writeFrame(const ConstFrameView& frame) {
    if (frame.size() != mSize)
        throw std::invalid_argument(mFile + ": a frame has another size than the first");
    write("FRAME\n", 6);
    if (mEvenPart.empty()) return write(frame.block(), frame.bytes());
    const FrameView even(mEvenPart.data(), evenSize(mSize));
    for (size_t i = 0; i < even.planes().size(); ++i) {
        const Plane<uint8_t>& plane = even.planes()[i];
        copyPlane(frame.planes()[i].part(0, 0, plane.width, plane.height), plane);
    }
    write(even.block(), even.bytes());
}

void Y4mWriter::close() {
    if (::close(mFd.release()) != 0) fail(errno);
}

void Y4mWriter::write(const void* bytes, size_t count) {
    const NoSigPipe quiet;
    const char* next = static_cast<const char*>(bytes);
    while (count > 0) {
        const ssize_t written = ::write(mFd, next, count);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) fail(errno);
        next += written;
        count -= static_cast<size_t>(written);
    }
}

void Y4mWriter::fail(int error) const {
    throw std::runtime_error("cannot write " + mFile + ": " + std::strerror(error));
}

}  // namespace vel::sim
