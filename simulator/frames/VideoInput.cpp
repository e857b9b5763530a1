#include "VideoInput.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "Spawn.h"
#include "Timeline.h"

namespace vel::sim {
namespace {

using android::base::unique_fd;

constexpr size_t kMaxErrorText = 2048;
constexpr int kPipeBytes = 1 << 20;  // a large pipe spares wake-ups; the kernel may refuse

// The child has the file as its standard input and opens it from there by a name without any ending, which it
// could otherwise take for a format, nor anything it could take for an option, a pattern or an address.
constexpr const char* kCommand[] = {"ffmpeg",       "-nostdin",        "-hide_banner", "-v",    "error",
                                    "-i",           "file:/dev/stdin", "-map",         "0:v:0", "-f",
                                    "yuv4mpegpipe", "-pix_fmt",        "yuv420p",      "-"};

// The lines as one, without the decoder's addresses, its name for the file and its counts of repeats.
std::string oneLine(const std::string& text) {
    static const std::regex noise(
        R"(^ *(Last message repeated.*)?(\[[^\]]* @ 0x[0-9a-f]+\] )?(file:/dev/stdin: )?)");
    std::istringstream lines(text);
    std::string all;
    std::string line;
    while (std::getline(lines, line)) {
        line = std::regex_replace(line, noise, "");
        if (!line.empty()) all += (all.empty() ? "" : "; ") + line;
    }
    return printable(all, 500);
}

std::string startOf(int file) {
    std::string start(256, 0);
    const ssize_t got = pread(file, start.data(), start.size(), 0);
    return start.substr(0, static_cast<size_t>(std::max<ssize_t>(got, 0)));
}

}  // namespace

VideoInput::Decoder::~Decoder() {
    if (pid < 0) return;
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

VideoInput::VideoInput(const std::string& file, int cancelFd)
    : mName(printable(file, 256)), mCancelFd(cancelFd) {
    openFile(file);
    mReader =
        std::make_unique<Y4mReader>(mName, [this](void* to, size_t count) { return readData(to, count); });
}

VideoInput::VideoInput(int stream, const std::string& name, int cancelFd)
    : mName(name), mCancelFd(cancelFd), mData(fcntl(stream, F_DUPFD_CLOEXEC, 0)) {
    if (mData < 0) fail(std::strerror(errno));
    mReader =
        std::make_unique<Y4mReader>(mName, [this](void* to, size_t count) { return readData(to, count); });
}

VideoInput::~VideoInput() = default;

void VideoInput::fail(const std::string& what) const {
    throw std::runtime_error(mName + ": " + what);
}

void VideoInput::openFile(const std::string& file) {
    unique_fd input(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));  // a FIFO must not block here
    struct stat status {};
    if (input < 0 || fstat(input, &status) != 0) fail(std::strerror(errno));
    (void)fcntl(input, F_SETFL, O_RDONLY);
    if (S_ISDIR(status.st_mode)) fail("is a directory");
    if (S_ISREG(status.st_mode) && status.st_size == 0) fail("is empty");
    // What needs no decoder is read without it: it would not tell that such a file was cut.
    if (beginsPlainY4m(startOf(input))) {
        mData = std::move(input);
    } else {
        startDecoder(input);
    }
}

void VideoInput::startDecoder(int input) try {
    Pipe output = openPipe();
    Pipe errors = openPipe();
    (void)fcntl(output.parent, F_SETPIPE_SZ, kPipeBytes);
    mDecoder.pid = spawn({std::begin(kCommand), std::end(kCommand)}, {input, output.child, errors.child});
    mData = std::move(output.parent);
    mErrors = std::move(errors.parent);
} catch (const std::system_error& error) {
    fail(error.code() == std::errc::no_such_file_or_directory
             ? "needs the program ffmpeg, which is not installed"
             : error.what());
}

bool VideoInput::readFrame(const FrameView& frame) {
    return mReader->readFrame(frame);
}

std::string VideoInput::complaint() const {
    return oneLine(mErrorText);
}

// Waits for data, or errors, to read. True when there are errors.
bool VideoInput::waitReadable(int data) const {
    pollfd sources[] = {{data, POLLIN, 0}, {mErrors, POLLIN, 0}, {mCancelFd, POLLIN, 0}};
    while (poll(sources, 3, -1) < 0 && errno == EINTR) {
    }
    if (sources[2].revents != 0) fail("reading was cancelled");
    return sources[1].revents != 0;
}

// Takes what the decoder says, so that it never waits for us to listen.
void VideoInput::readErrors() {
    char buffer[512];
    const ssize_t got = read(mErrors, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) return;
    if (got <= 0) return mErrors.reset();
    const size_t room = kMaxErrorText - mErrorText.size();
    mErrorText.append(buffer, std::min(room, static_cast<size_t>(got)));
}

size_t VideoInput::readData(void* to, size_t count) try {
    if (mData < 0) return 0;
    while (waitReadable(mData))
        readErrors();
    const size_t got = readFrom(mData)(to, count);
    mAnyData |= got > 0;
    if (got > 0) return got;
    mData.reset();
    if (mDecoder.pid > 0) finishDecoder();
    return 0;
} catch (const std::system_error& error) {
    fail(error.what());
}

void VideoInput::finishDecoder() {
    while (mErrors >= 0 && waitReadable(-1))
        readErrors();
    int status = 0;
    while (waitpid(mDecoder.pid, &status, 0) < 0 && errno == EINTR) {
    }
    mDecoder.pid = -1;
    const bool failed = !WIFEXITED(status) || WEXITSTATUS(status) != 0;
    if (!failed && mAnyData) return;
    if (mErrorText.find("matches no streams") != std::string::npos) fail("holds no picture");
    if (!mErrorText.empty()) fail("cannot be decoded: " + complaint());
    if (WIFSIGNALED(status)) fail("ffmpeg was ended by signal " + std::to_string(WTERMSIG(status)));
    fail(failed ? "ffmpeg failed without a word" : "holds no picture");
}

}  // namespace vel::sim
