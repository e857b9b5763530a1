#pragma once

#include <cstdint>
#include <list>
#include <mutex>

namespace vel::chaos {

/** Whether a call into the library may wait for a peer; docs/threading.md tells it of each. */
enum class MayWait { NEVER, FOR_PEERS };

struct TimedCall {
    const char* name = "none";
    int64_t ns = 0;
};

/** Measures the calls of all threads into the library. Any thread; takes only its own lock. */
class CallMeter {
  public:
    /** Makes the call and returns its result. The name is a literal. */
    template <typename Call>
    auto measure(const char* name, MayWait mayWait, const Call& call) {
        const Running running(*this, name, mayWait);
        return call();
    }

    /** The longest call of the kind since the last reset; one that still runs counts as long as it has run.
     */
    TimedCall longest(MayWait mayWait) const;
    /** Forgets the calls that have ended. */
    void reset();

  private:
    struct Call {
        const char* name;
        MayWait mayWait;
        int64_t startNs;
    };
    class Running {
      public:
        Running(CallMeter& meter, const char* name, MayWait mayWait);
        ~Running();
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

      private:
        CallMeter& mMeter;
        std::list<Call>::iterator mCall;
    };

    mutable std::mutex mLock;
    std::list<Call> mRunning;                   // guarded by mLock
    TimedCall mLongestNever, mLongestForPeers;  // guarded by mLock; of those that have ended
};

}  // namespace vel::chaos
