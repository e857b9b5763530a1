#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "CallMeter.h"
#include "Resources.h"

namespace vel::chaos {

/** A call beside what it may take. */
struct BoundedCall {
    TimedCall call;
    int64_t boundNs = 1;

    double share() const { return static_cast<double>(call.ns) / static_cast<double>(boundNs); }
};

/** What one round showed. */
struct RoundFigures {
    BoundedCall waiting, notWaiting;     // the longest of each
    int64_t commandNs = 0, frameNs = 0;  // from the end of the fault to the next of them that works
    Resources resources;                 // once all works again
};

/** The rounds of one fault. */
class FaultFigures {
  public:
    void add(const RoundFigures& round);
    /** A row for the table whose head printHead() prints. */
    void print(const char* name) const;
    static void printHead();

  private:
    BoundedCall mWaiting, mNotWaiting;  // those nearest to their bounds
    std::vector<int64_t> mCommandsNs, mFramesNs;
    Resources mFirst, mLast;
};

}  // namespace vel::chaos
