#include "Spawn.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace vel::sim {
namespace {

[[noreturn]] void throwErrno(const std::string& what, int error = errno) {
    throw std::system_error(error, std::generic_category(), what);
}

std::vector<std::string> mergedEnvironment(const std::map<std::string, std::string>& added) {
    std::vector<std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string line = *entry;
        if (added.count(line.substr(0, line.find('='))) == 0) merged.push_back(line);
    }
    for (const auto& [name, value] : added)
        merged.emplace_back(name).append("=").append(value);
    return merged;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// Runs in the child between fork and exec: only async-signal-safe calls.
[[noreturn]] void becomeProgram(char* const* command, char* const* environment, const ChildStreams& streams,
                                int failure, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);  // the parent died before the line above
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    setpgid(0, 0);
    dup2(streams.input, STDIN_FILENO);
    dup2(streams.output, STDOUT_FILENO);
    if (streams.errors >= 0) dup2(streams.errors, STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);  // some libraries open descriptors without it
    for (const int fd : streams.others)
        fcntl(fd, F_SETFD, 0);
    execvpe(command[0], command, environment);
    const int error = errno;
    if (write(failure, &error, sizeof(error)) < 0) _exit(126);
    _exit(127);
}

}  // namespace

Pipe openPipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throwErrno("pipe2");
    return {android::base::unique_fd(ends[0]), android::base::unique_fd(ends[1])};
}

pid_t spawn(std::vector<std::string> command, const ChildStreams& streams,
            const std::map<std::string, std::string>& environment) {
    Pipe failure = openPipe();
    std::vector<std::string> merged = mergedEnvironment(environment);
    const std::vector<char*> arguments = pointersTo(command);
    const std::vector<char*> variables = pointersTo(merged);

    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) throwErrno("fork");
    if (child == 0) becomeProgram(arguments.data(), variables.data(), streams, failure.child.get(), parent);
    failure.child.reset();
    int error = 0;
    if (read(failure.parent.get(), &error, sizeof(error)) == sizeof(error)) {
        waitpid(child, nullptr, 0);
        throwErrno("cannot start " + command.front(), error);
    }
    return child;
}

}  // namespace vel::sim
