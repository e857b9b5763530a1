#include "ChildProcess.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "Spawn.h"

namespace vel::sim {
namespace {

using android::base::unique_fd;

// Input is a socket, so that writing to a child that has gone fails without a SIGPIPE.
Pipe openInput() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::system_error(errno, std::generic_category(), "socketpair");
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}

}  // namespace

ChildProcess::ChildProcess(Options options) : mOnLine(std::move(options.onLine)) {
    Pipe input = openInput();
    Pipe output = openPipe();
    const int errors = options.hasErrorsInOutput ? output.child.get() : -1;
    mPid = spawn(std::move(options.command),
                 {input.child, output.child, errors, std::move(options.descriptors)}, options.environment);
    // Not by pidfd_open(): glibc's header of it does not link from C++.
    mPidFd.reset(static_cast<int>(syscall(SYS_pidfd_open, mPid, 0)));
    mStop.reset(eventfd(0, EFD_CLOEXEC));
    mInput = std::move(input.parent);
    mOutput = std::move(output.parent);
    mReader = std::thread([this] { readOutput(); });
}

ChildProcess::~ChildProcess() {
    kill(SIGKILL);
    (void)wait();
    // The child's own children may hold its output open, so the end of the output is not waited for.
    eventfd_write(mStop.get(), 1);
    mReader.join();
}

// The kernel calls a socket writable while three quarters of its 208 KB or more are free.
bool ChildProcess::hasRoom() const {
    pollfd input{mInput.get(), POLLOUT, 0};
    return poll(&input, 1, 0) > 0;
}

bool ChildProcess::writeLine(const std::string& line) {
    const std::string text = line + "\n";
    size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t count = send(mInput.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        sent += static_cast<size_t>(count);
    }
    return true;
}

void ChildProcess::closeInput() {
    shutdown(mInput.get(), SHUT_WR);
}

std::optional<std::string> ChildProcess::waitForLine(const std::string& text,
                                                     std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    std::unique_lock<std::mutex> lock(mLock);
    const auto holdsText = [&](const std::string& line) { return line.find(text) != std::string::npos; };
    auto found = mLines.end();
    mChanged.wait_until(lock, end, [&] {
        found = std::find_if(mLines.begin(), mLines.end(), holdsText);
        return found != mLines.end() || mOutputEnded;
    });
    if (found == mLines.end()) return std::nullopt;
    std::string line = std::move(*found);
    mLines.erase(found);
    return line;
}

void ChildProcess::kill(int signal) {
    if (!mExit) ::kill(mPid, signal);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds limit) {
    if (mExit) return mExit;
    pollfd ended{mPidFd.get(), POLLIN, 0};
    const auto end = std::chrono::steady_clock::now() + limit;
    int ready = 0;
    do {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        ready = poll(&ended, 1, std::max<int>(0, static_cast<int>(left.count())));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) return std::nullopt;
    int status = 0;
    if (waitpid(mPid, &status, 0) != mPid) return std::nullopt;
    mExit = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    return mExit;
}

// Waits for output. False once reading is to stop and all that had been written by then has been read.
bool ChildProcess::outputReadable() {
    pollfd sources[] = {{mOutput.get(), POLLIN, 0}, {mStop.get(), POLLIN, 0}};
    while (poll(sources, 2, -1) < 0 && errno == EINTR) {
    }
    return sources[0].revents != 0;
}

void ChildProcess::readOutput() {
    std::string pending;
    char buffer[4096];
    while (outputReadable()) {
        const ssize_t count = read(mOutput.get(), buffer, sizeof(buffer));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        pending.append(buffer, static_cast<size_t>(count));
        size_t newline;
        while ((newline = pending.find('\n')) != std::string::npos) {
            deliver(pending.substr(0, newline));
            pending.erase(0, newline + 1);
        }
    }
    if (!pending.empty()) deliver(std::move(pending));
    std::lock_guard<std::mutex> lock(mLock);
    mOutputEnded = true;
    mChanged.notify_all();
}

void ChildProcess::deliver(std::string line) {
    if (mOnLine) mOnLine(line);
    std::lock_guard<std::mutex> lock(mLock);
    mLines.push_back(std::move(line));
    if (mLines.size() > kKeptLines) mLines.pop_front();
    mChanged.notify_all();
}

}  // namespace vel::sim
