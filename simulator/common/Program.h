#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>

namespace CLI {
class App;
}

namespace vel::sim {

/** What every program of the simulator is told on its command line. */
struct CommonOptions {
    std::string bus;                      // address of the bus; empty for none
    std::optional<int64_t> timeOriginNs;  // steady clock that printed times count from; none: not told
    int eventsFd = -1;                    // what events are written to; negative for nothing
};

/**
 * Adds --bus, which the environment may stand in for, --time-origin and --events. Command lines are read
 * through CLI11, which costs seconds to compile: only a program's main.cpp includes it.
 */
void addCommonOptions(CLI::App& cli, CommonOptions& options);

/**
 * Parses the command line; an exit code when the program is to end with it (help, or words it does not
 * know).
 */
std::optional<int> parseArguments(CLI::App& cli, int argc, char** argv);

/**
 * Does a program's work and returns its exit code, or 1 after a line on standard error when the work throws.
 * Standard streams that are closed lead nowhere from then on: no descriptor takes their number.
 */
int runProgram(const char* name, const std::function<int()>& work);

/**
 * Makes the options hold for this process: the bus address and the origin of printed times, which is now
 * when they tell none. Before any thread.
 */
void applyCommonOptions(const CommonOptions& options);

/** The steady clock, in ns, that printed times count from. Any thread. */
int64_t timeOriginNs();
/** Counts printed times from another origin from now on. Any thread. */
void setTimeOrigin(int64_t originNs);

/**
 * Prints a line behind its time stamp and flushes it, in one write, so that lines of threads do not mix; any
 * thread may call. When nobody reads the output any longer, the process is asked to end, as by SIGTERM.
 */
void printStamped(const std::string& line);

/** The same of a formatted text. Bytes that are not printable are escaped. */
__attribute__((format(printf, 1, 2))) void printLine(const char* format, ...);

/**
 * Calls a function with the text behind each "error " that printLine() prints at the beginning of a line,
 * from now on; null: none. Any thread.
 */
void setErrorListener(void (*listener)(const std::string& text));

/**
 * Prints the commands that a program reads, without a stamp, when the line is the word help; false, and
 * nothing is printed, for any other line.
 */
bool answerHelp(const std::string& line, const char* commands);

/** Prints that the program does not understand a line, and how to find out what it does. */
void refuseLine(const std::string& line);

/**
 * Ignores SIGPIPE: a reader that goes is told by the write. Takes SIGINT, SIGTERM and, unless it is ignored
 * (nohup), SIGHUP as requests to end. Create it before any thread starts: the threads then leave these
 * signals alone.
 */
class EndSignals {
  public:
    /** Throws std::system_error without descriptors. */
    EndSignals();
    /** Whether one of the signals has arrived. */
    bool arrived() const { return wait(0); }
    /**
     * Blocks until one of the signals arrives. Also until the descriptor is readable, or false after that
     * many milliseconds, when given.
     */
    bool wait(int limitMs = -1, int otherFd = -1) const;
    /** Readable once a signal has arrived, for a wait of the caller's own; not to be read from. */
    int fd() const { return mSignals; }
    /**
     * Reads the next line of standard input; false at its end, or when a signal arrives first. One thread.
     */
    bool readLine(std::string& line);

  private:
    android::base::unique_fd mSignals;
    std::string mInput;  // read and not yet returned
};

/**
 * Ends this process, with exit code 1 and a line on standard error, when it still runs four seconds after one
 * of the signals: a peer that hangs keeps threads in its calls. Runs the last words before. Throws
 * std::system_error without a thread for it.
 */
void endSoonAfter(
    const EndSignals& signals, std::function<void()> lastWords = [] {});

/** Calls a function once, when one of the signals arrives, on a thread that ends with this object. */
class EndSignalWatcher {
  public:
    /** Throws std::system_error without descriptors or threads. */
    EndSignalWatcher(EndSignals& signals, std::function<void()> onSignal);
    ~EndSignalWatcher();
    EndSignalWatcher(const EndSignalWatcher&) = delete;
    EndSignalWatcher& operator=(const EndSignalWatcher&) = delete;

  private:
    const android::base::unique_fd mStop;
    std::thread mThread;
};

}  // namespace vel::sim
