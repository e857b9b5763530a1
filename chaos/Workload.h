#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "Activities.h"
#include "StopSignal.h"

namespace vel::chaos {

/** The activities of a camera HAL with the library, each on a thread that lives as long as this object. */
class Workload {
  public:
    enum Kind { COMMANDS = 1, FRAMES = 2, REST = 4, ALL = 7 };

    explicit Workload(const Library& library);
    /** Waits for the calls that are under way. */
    ~Workload();
    Workload(const Workload&) = delete;
    Workload& operator=(const Workload&) = delete;

    /** From now on only what begins at this time (steady clock, ns) or later counts as a success. */
    void mark(int64_t sinceNs);
    /** The activities of these kinds that have not succeeded since the mark; empty for none. */
    std::string missing(int kinds) const;
    /** When the last activity of these kinds succeeded for the first time since the mark. */
    int64_t succeededNs(int kinds) const;

    /** Has the desktop camera closed, which ends its substitution, and opened again. Does not wait for it. */
    void reopenDesktopCamera() { mIsReopening = true; }
    bool isReopening() const { return mIsReopening; }

  private:
    struct Activity {
        const char* name;
        Kind kind;
        std::chrono::milliseconds pause;
        std::function<int64_t()> attempt;
        int64_t succeededNs = 0;  // guarded by mLock; for the first time since the mark, 0 for not yet
        std::thread thread;
    };

    template <typename Work, typename... Arguments>
    void add(const char* name, Kind kind, int pauseMs, const Arguments&... arguments);
    void run(Activity& activity);
    void reopenWhenAsked();

    const Library mLibrary;
    sim::StopSignal mStop;
    std::atomic<bool> mIsReopening{false};
    mutable std::mutex mLock;
    int64_t mSinceNs = 0;  // guarded by mLock
    std::list<Activity> mActivities;
    std::thread mReopener;
};

}  // namespace vel::chaos
