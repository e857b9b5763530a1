#include "Program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <system_error>
#include <utility>

#include "DesktopBusNames.h"
#include "FieldList.h"
#include "StartThread.h"
#include "Timeline.h"

namespace vel::sim {

namespace {
std::atomic<int64_t> gTimeOriginNs{0};
std::atomic<void (*)(const std::string&)> gErrorListener{nullptr};
constexpr char kError[] = "error ";
constexpr std::chrono::seconds kEndLimit{4};  // for what the signals find running
}  // namespace

void addCommonOptions(CLI::App& cli, CommonOptions& options) {
    cli.add_option("--bus", options.bus, "address of the bus")
        ->type_name("ADDRESS")
        ->envname(desktop_bus::kAddressVariable);
    cli.add_option("--time-origin", options.timeOriginNs,
                   "steady clock, in ns, that printed times count from (default: the service's start)")
        ->type_name("NS");
    cli.add_option("--events", options.eventsFd, "descriptor that each event is written to as a line of JSON")
        ->type_name("FD");
}

std::optional<int> parseArguments(CLI::App& cli, int argc, char** argv) {
    try {
        cli.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return cli.exit(error) == 0 ? 0 : 2;
    }
    return std::nullopt;
}

int runProgram(const char* name, const std::function<int()>& work) {
    for (int fd = -1; fd <= STDERR_FILENO;) {
        fd = open("/dev/null", O_RDONLY);
        if (fd < 0) break;
        if (fd > STDERR_FILENO) close(fd);
    }
    try {
        return work();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", name, error.what());
        return EXIT_FAILURE;
    }
}

void applyCommonOptions(const CommonOptions& options) {
    if (!options.bus.empty()) setenv(desktop_bus::kAddressVariable, options.bus.c_str(), 1);
    setTimeOrigin(options.timeOriginNs.value_or(steadyNowNs()));
}

int64_t timeOriginNs() {
    return gTimeOriginNs;
}

void setTimeOrigin(int64_t originNs) {
    gTimeOriginNs = originNs;
}

void printStamped(const std::string& line) {
    const std::string whole = timelineStamp(steadyNowNs(), timeOriginNs()) + line + "\n";
    const bool isWritten =
        std::fwrite(whole.data(), 1, whole.size(), stdout) == whole.size() && std::fflush(stdout) == 0;
    if (!isWritten && errno == EPIPE) kill(getpid(), SIGTERM);
}

void printLine(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0) return;
    const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
    printStamped(printable(text));
    const auto listener = gErrorListener.load();
    if (listener != nullptr && std::string(text).rfind(kError, 0) == 0) listener(text + std::strlen(kError));
}

void setErrorListener(void (*listener)(const std::string& text)) {
    gErrorListener = listener;
}

bool answerHelp(const std::string& line, const char* commands) {
    if (FieldList::verbOf(line) != "help") return false;
    std::printf("%s\n", commands);
    std::fflush(stdout);
    return true;
}

void refuseLine(const std::string& line) {
    printLine("error not understood: %s (help lists the commands)", line.c_str());
}

namespace {

android::base::unique_fd required(int fd, const char* purpose) {
    if (fd < 0) throw std::system_error(errno, std::generic_category(), purpose);
    return android::base::unique_fd(fd);
}

}  // namespace

EndSignals::EndSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM})
        sigaddset(&signals, signal);
    struct sigaction hangUp {};
    if (sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    mSignals = required(signalfd(-1, &signals, SFD_CLOEXEC), "no descriptor for signals");
}

// The signal is never taken from the descriptor, so that every wait sees it.
bool EndSignals::wait(int limitMs, int otherFd) const {
    pollfd sources[] = {{mSignals, POLLIN, 0}, {otherFd, POLLIN, 0}};
    int ready = 0;
    do {
        ready = poll(sources, 2, limitMs);
    } while (ready < 0 && errno == EINTR);
    return sources[0].revents != 0;
}

bool EndSignals::readLine(std::string& line) {
    size_t end = 0;
    while ((end = mInput.find('\n')) == std::string::npos) {
        char buffer[4096];
        if (wait(-1, STDIN_FILENO)) return false;
        const ssize_t got = read(STDIN_FILENO, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            line = std::exchange(mInput, {});
            return !line.empty();
        }
        mInput.append(buffer, static_cast<size_t>(got));
    }
    line = mInput.substr(0, end);
    mInput.erase(0, end + 1);
    return true;
}

void endSoonAfter(const EndSignals& signals, std::function<void()> lastWords) {
    // The thread outlives the signals' owner.
    auto arrived = std::make_shared<android::base::unique_fd>(
        required(fcntl(signals.fd(), F_DUPFD_CLOEXEC, 0), "no descriptor for the end"));
    startThread("the end", [arrived, lastWords = std::move(lastWords)] {
        pollfd source{*arrived, POLLIN, 0};
        while (poll(&source, 1, -1) <= 0) {
        }
        std::this_thread::sleep_for(kEndLimit);
        lastWords();
        alarm(1);  // whoever reads standard error may hang, too
        std::fprintf(stderr, "a peer hangs in a call: ended without its answer\n");
        _exit(EXIT_FAILURE);
    }).detach();
}

EndSignalWatcher::EndSignalWatcher(EndSignals& signals, std::function<void()> onSignal)
    : mStop(required(eventfd(0, EFD_CLOEXEC), "no descriptor for the end")),
      mThread(startThread("signals", [this, &signals, onSignal = std::move(onSignal)] {
          if (signals.wait(-1, mStop)) onSignal();
      })) {}

EndSignalWatcher::~EndSignalWatcher() {
    eventfd_write(mStop, 1);
    mThread.join();
}

}  // namespace vel::sim
