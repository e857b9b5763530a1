#pragma once

#include <climits>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "PrivateBus.h"
#include "Timeline.h"

namespace vel::sim {

/**
 * The desktop service ("service"), the camera server ("camera_server") and the application ("app") on a bus
 * of their own. All end with this object. One thread, which lives as long as they should, except where said.
 */
class PeerPrograms {
  public:
    // A line of a peer's output; on threads of its own.
    using OnLine = std::function<void(const std::string& peer, const std::string& line)>;

    struct Start {
        std::vector<std::string> arguments;
        std::vector<int> descriptors;  // that it has, too; the caller's
    };

    /** Starts the bus. The programs are looked for in the folder. */
    PeerPrograms(const std::string& directory, OnLine onLine);
    ~PeerPrograms() { interrupt(); }

    /** The steady clock that all of them count times from. */
    int64_t originNs() const { return mOriginNs; }

    /** Starts a peer, in place of the one before. Throws what spawn() does. */
    void start(const std::string& peer, const Start& start);
    /** How it ended: see ChildProcess::wait(). Empty while it runs, and before it was started. */
    std::optional<int> exitCode(const std::string& peer);

    /** Writes a line to a peer's input; false when it does not run or no longer reads. */
    bool send(const std::string& peer, const std::string& line);
    /** Whether a peer takes a line of up to 64 KB without a wait for it. */
    bool hasRoom(const std::string& peer) const;
    void kill(const std::string& peer, int signal);
    /** Ends a peer at once and waits for it. */
    void killAndWait(const std::string& peer);
    /**
     * Ends a peer as a person would. Its exit code as in ChildProcess::wait(), kHangs when it had to be made
     * to end, empty when there is none.
     */
    std::optional<int> end(const std::string& peer);
    static constexpr int kHangs = INT_MIN;
    /** Ends all as a signal does, whatever they are doing, those that are stopped too. */
    void interrupt();

  private:
    ChildProcess* find(const std::string& peer) const;

    const std::string mDirectory;
    const OnLine mOnLine;
    const int64_t mOriginNs = steadyNowNs();
    PrivateBus mBus;
    std::map<std::string, std::unique_ptr<ChildProcess>> mChildren;
};

}  // namespace vel::sim
