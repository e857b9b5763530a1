#include "CallMeter.h"

#include "Timeline.h"

namespace vel::chaos {

using sim::steadyNowNs;

CallMeter::Running::Running(CallMeter& meter, const char* name, MayWait mayWait) : mMeter(meter) {
    std::lock_guard<std::mutex> lock(meter.mLock);
    mCall = meter.mRunning.insert(meter.mRunning.end(), {name, mayWait, steadyNowNs()});
}

CallMeter::Running::~Running() {
    std::lock_guard<std::mutex> lock(mMeter.mLock);
    const int64_t ns = steadyNowNs() - mCall->startNs;
    TimedCall& longest = mCall->mayWait == MayWait::NEVER ? mMeter.mLongestNever : mMeter.mLongestForPeers;
    if (ns > longest.ns) longest = {mCall->name, ns};
    mMeter.mRunning.erase(mCall);
}

TimedCall CallMeter::longest(MayWait mayWait) const {
    std::lock_guard<std::mutex> lock(mLock);
    TimedCall longest = mayWait == MayWait::NEVER ? mLongestNever : mLongestForPeers;
    for (const Call& call : mRunning) {
        const int64_t ns = steadyNowNs() - call.startNs;
        if (call.mayWait == mayWait && ns > longest.ns) longest = {call.name, ns};
    }
    return longest;
}

void CallMeter::reset() {
    std::lock_guard<std::mutex> lock(mLock);
    mLongestNever = mLongestForPeers = {};
}

}  // namespace vel::chaos
