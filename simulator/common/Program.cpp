#include "Program.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "Timeline.h"

namespace vel::sim {

namespace {
int64_t gTimeOriginNs = 0;
}

void addCommonOptions(CLI::App& cli, CommonOptions& options) {
    cli.add_option("--bus", options.bus, "address of the bus (default: $VEL_DESKTOP_BUS_ADDRESS)");
    cli.add_option("--time-origin", options.timeOriginNs,
                   "steady clock, in ns, that printed times count from");
}

std::optional<int> parseArguments(CLI::App& cli, int argc, char** argv) {
    try {
        cli.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return cli.exit(error) == 0 ? 0 : 2;
    }
    return std::nullopt;
}

void applyCommonOptions(const CommonOptions& options) {
    if (!options.bus.empty()) setenv("VEL_DESKTOP_BUS_ADDRESS", options.bus.c_str(), 1);
    gTimeOriginNs = options.timeOriginNs;
}

void printLine(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    std::vector<char> text(static_cast<size_t>(std::vsnprintf(nullptr, 0, format, arguments)) + 1);
    va_end(arguments);
    std::vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    const std::string line =
        timelineStamp(steadyNowNs(), gTimeOriginNs) + printable(std::string(text.data())) + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);  // one write a line: lines of threads do not mix
    std::fflush(stdout);
}

EndSignals::EndSignals() {
    sigemptyset(&mSignals);
    sigaddset(&mSignals, SIGINT);
    sigaddset(&mSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &mSignals, nullptr);
}

void EndSignals::wait() {
    int signal = 0;
    sigwait(&mSignals, &signal);
}

EndSignalWatcher::EndSignalWatcher(EndSignals& signals, std::function<void()> onSignal)
    : mThread([this, &signals, onSignal = std::move(onSignal)] {
          signals.wait();
          if (!mStopping) onSignal();
      }) {}

// A signal to the thread itself wakes it; the thread waits for that signal, so nothing is ended by it.
EndSignalWatcher::~EndSignalWatcher() {
    mStopping = true;
    pthread_kill(mThread.native_handle(), SIGTERM);  // NOLINT(bugprone-bad-signal-to-kill-thread)
    mThread.join();
}

}  // namespace vel::sim
