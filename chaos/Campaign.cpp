#include "Campaign.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

#include "Timeline.h"
#include "WaitUntil.h"

namespace vel::chaos {

using namespace std::chrono_literals;
using sim::steadyNowNs;

namespace {

// A call that may wait returns so long after the end of what it waits for; one that may not, so long after
// its beginning. A sanitizer or an emulator makes everything slower.
#ifdef VEL_SLOW
constexpr std::chrono::nanoseconds kMargin = 10s, kBoundWithoutWait = 3s;
constexpr size_t kMoreMemoryKib = SIZE_MAX / 2;  // a sanitizer keeps what was freed
#else
constexpr std::chrono::nanoseconds kMargin = 2s, kBoundWithoutWait = 500ms;
constexpr size_t kMoreMemoryKib = size_t{8} * 1024;
#endif
constexpr auto kHangLimit = 20s;
constexpr unsigned kRoundLimitSeconds = 120;
// Buffers of the queues' slots come and go, and so do workers.
constexpr size_t kMoreDescriptors = 10, kMoreThreads = 16;

std::vector<size_t> shuffledFaults(uint32_t seed, uint32_t round) {
    std::vector<size_t> order(faults().size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::seed_seq sequence{seed, round};
    std::shuffle(order.begin(), order.end(), std::mt19937(sequence));
    return order;
}

void requireWithin(const BoundedCall& bounded) {
    if (bounded.call.ns <= bounded.boundNs) return;
    throw std::runtime_error(std::string(bounded.call.name) + " took " +
                             std::to_string(bounded.call.ns / 1000000) + " ms, its bound is " +
                             std::to_string(bounded.boundNs / 1000000) + " ms");
}

void requireNoMore(const char* what, size_t first, size_t last, size_t more) {
    if (last <= first + more) return;
    throw std::runtime_error(std::string(what) + " grew from " + std::to_string(first) + " to " +
                             std::to_string(last));
}

}  // namespace

Campaign::Campaign(Peers& peers, Workload& workload, CallMeter& meter, uint32_t seed)
    : mPeers(peers), mWorkload(workload), mMeter(meter), mSeed(seed), mFigures(faults().size()) {}

void Campaign::run(uint32_t rounds) {
    mWorkload.reopenDesktopCamera();
    awaitReopening();
    mPeers.configureApp();
    awaitRecovery();
    Resources first = Resources::now();
    for (uint32_t round = 0; round < rounds; ++round) {
        for (const size_t index : shuffledFaults(mSeed, round))
            playNamed(index, round);
        if (round == 0 && rounds > 1) first = Resources::now();  // all threads and buffers have been needed
    }
    judgeGrowth(first);
}

void Campaign::playNamed(size_t index, uint32_t round) try {
    mFigures[index].add(play(faults()[index], Schedule(mSeed, index, round)));
} catch (const std::exception& error) {
    throw std::runtime_error("round " + std::to_string(round + 1) + ", " + faults()[index].name + ": " +
                             error.what());
}

void Campaign::print() const {
    FaultFigures::printHead();
    for (size_t index = 0; index < mFigures.size(); ++index)
        mFigures[index].print(faults()[index].name);
}

RoundFigures Campaign::play(const Fault& fault, const Schedule& schedule) {
    alarm(kRoundLimitSeconds);
    mMeter.reset();
    std::this_thread::sleep_for(schedule.before);
    const int64_t beginNs = steadyNowNs();
    suffer(fault, schedule);
    const int64_t endNs = steadyNowNs();
    mWorkload.mark(endNs);
    (mPeers.*fault.end)();
    const int64_t boundNs = steadyNowNs() - beginNs + kMargin.count();
    awaitReopening();
    if (fault.endsFrames || schedule.close) mPeers.configureApp();
    awaitRecovery();
    RoundFigures figures;
    figures.waiting = {mMeter.longest(MayWait::FOR_PEERS), boundNs};
    figures.notWaiting = {mMeter.longest(MayWait::NEVER), kBoundWithoutWait.count()};
    figures.commandNs = mWorkload.succeededNs(Workload::COMMANDS) - endNs;
    figures.frameNs = mWorkload.succeededNs(Workload::FRAMES) - endNs;
    figures.resources = Resources::now();
    requireWithin(figures.waiting);
    requireWithin(figures.notWaiting);
    return figures;
}

// The fault from its beginning until its end is due, with a close of the camera in it when there is one.
void Campaign::suffer(const Fault& fault, const Schedule& schedule) {
    const auto begin = std::chrono::steady_clock::now();
    (mPeers.*fault.begin)();
    if (schedule.close) {
        std::this_thread::sleep_until(begin + *schedule.close);
        mWorkload.reopenDesktopCamera();
    }
    std::this_thread::sleep_until(begin + schedule.lasting);
}

void Campaign::awaitReopening() const {
    if (!waitUntil([this] { return !mWorkload.isReopening(); }, kHangLimit))
        throw std::runtime_error("the close of the desktop camera hangs");
}

void Campaign::awaitRecovery() const {
    const bool isWell = waitUntil([this] { return mWorkload.missing(Workload::ALL).empty(); }, kHangLimit);
    const std::string ended = mPeers.endedByItself();
    if (!ended.empty()) throw std::runtime_error(ended + " has ended by itself");
    if (isWell) return;
    throw std::runtime_error("it hangs: no " + mWorkload.missing(Workload::ALL) + " for " +
                             std::to_string(kHangLimit.count()) + " s; the longest call is " +
                             mMeter.longest(MayWait::FOR_PEERS).name);
}

// What goes with the last round goes when its peers have said so.
void Campaign::judgeGrowth(const Resources& first) const {
    (void)waitUntil([&] { return Resources::now().descriptors <= first.descriptors + kMoreDescriptors; },
                    kHangLimit);
    const Resources last = Resources::now();
    requireNoMore("the number of descriptors", first.descriptors, last.descriptors, kMoreDescriptors);
    requireNoMore("the number of threads", first.threads, last.threads, kMoreThreads);
    requireNoMore("the memory in KiB", first.memoryKib, last.memoryKib, kMoreMemoryKib);
}

}  // namespace vel::chaos
