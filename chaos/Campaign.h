#pragma once

#include <cstdint>
#include <vector>

#include "CallMeter.h"
#include "Faults.h"
#include "Peers.h"
#include "Report.h"
#include "Workload.h"

namespace vel::chaos {

/**
 * Rounds of every fault under a workload. Throws std::runtime_error with one line at the first hang, call
 * over its bound, peer that ends by itself, or growth. One thread.
 */
class Campaign {
  public:
    Campaign(Peers& peers, Workload& workload, CallMeter& meter, uint32_t seed);

    /** Has the faults take turns, in an order that changes with each, and compares what the process holds. */
    void run(uint32_t rounds);
    void print() const;

  private:
    void playNamed(size_t fault, uint32_t round);
    RoundFigures play(const Fault& fault, const Schedule& schedule);
    void suffer(const Fault& fault, const Schedule& schedule);
    void awaitReopening() const;
    void awaitRecovery() const;
    void judgeGrowth(const Resources& first) const;

    Peers& mPeers;
    Workload& mWorkload;
    CallMeter& mMeter;
    const uint32_t mSeed;
    std::vector<FaultFigures> mFigures;  // as faults()
};

}  // namespace vel::chaos
