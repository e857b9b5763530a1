#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace vel::sim {

/** Both ends of a connection between this process and a child; closed in every child. */
struct Pipe {
    android::base::unique_fd parent;
    android::base::unique_fd child;
};

/** A pipe whose reader is the parent. Throws std::system_error. */
Pipe openPipe();

/** What a child's streams are to be; they stay the caller's. */
struct ChildStreams {
    int input;
    int output;
    int errors = -1;            // negative: this process's own
    std::vector<int> others{};  // descriptors that the child has, too, under the same numbers
};

/**
 * Starts a program (searched in PATH) with its arguments and returns its process id; the caller reaps it. The
 * environment is set in addition to this process's own. Throws std::system_error when it cannot be started,
 * with the reason of exec() when that failed.
 *
 * The child has a process group of its own, so that Ctrl-C in a terminal reaches this process alone, blocks
 * no signal, and is killed by the kernel when the thread that called this ends.
 */
pid_t spawn(std::vector<std::string> command, const ChildStreams& streams,
            const std::map<std::string, std::string>& environment = {});

}  // namespace vel::sim
