#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vel::sim {

/**
 * A program started by this one, with its standard input and output piped here.
 *
 * The child is started as spawn() says, and killed when this object goes: start children from a thread that
 * lives as long as they should. The methods may be called from any thread, but kill(), wait() and
 * the destructor not concurrently with each other.
 */
class ChildProcess {
  public:
    static constexpr size_t kKeptLines = 4096;

    struct Options {
        std::vector<std::string> command;                // program (searched in PATH) and its arguments
        std::map<std::string, std::string> environment;  // set in addition to this process's own
        /**
         * Called with each line of output, without its newline, on the reading thread; may be empty. It must
         * not call back into the object.
         */
        std::function<void(const std::string&)> onLine;
        bool hasErrorsInOutput = false;  // else standard error is this process's own
        std::vector<int> descriptors;    // that the child has, too, under the same numbers; the caller's
    };

    /** Starts the program. Throws what spawn() does. */
    explicit ChildProcess(Options options);
    /** Kills the child if it still runs (SIGKILL) and reaps it. */
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return mPid; }

    /** Whether its input has room for a line of 64 KB: writeLine() does not wait for the child to read it. */
    bool hasRoom() const;
    /** Writes the line and a newline to the child's input. False when the child no longer reads. */
    bool writeLine(const std::string& line);
    /** Ends the child's input. */
    void closeInput();

    /**
     * The earliest line of output that contains the text and was not returned before, at most waited for so
     * long. Empty when the output ends first or the limit passes. The newest kKeptLines lines are searched.
     */
    std::optional<std::string> waitForLine(const std::string& text,
                                           std::chrono::milliseconds limit = std::chrono::seconds(30));

    /** Sends the signal unless the child was reaped already. */
    void kill(int signal);
    /**
     * Waits for the child's end, at most for the limit. The exit code, or the negative number of the signal
     * that ended it; empty when it still runs. May be called again afterwards.
     */
    std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(30));

  private:
    bool outputReadable();
    void readOutput();
    void deliver(std::string line);

    const std::function<void(const std::string&)> mOnLine;
    pid_t mPid = -1;
    android::base::unique_fd mPidFd;
    android::base::unique_fd mInput;
    android::base::unique_fd mOutput;
    android::base::unique_fd mStop;
    std::optional<int> mExit;

    std::mutex mLock;  // guards the two fields below
    std::condition_variable mChanged;
    std::deque<std::string> mLines;
    bool mOutputEnded = false;

    std::thread mReader;
};

}  // namespace vel::sim
