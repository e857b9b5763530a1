#include "Faults.h"

#include <random>

namespace vel::chaos {

namespace {

// A fault may outlast the bound of the calls that wait for nobody, so that one which does wait is found.
constexpr int kMinBeforeMs = 50, kMaxBeforeMs = 300;
constexpr int kMinLastingMs = 50, kMaxLastingMs = 1500;
constexpr int kRoundsWithClose = 3;  // of these one

}  // namespace

const std::vector<Fault>& faults() {
    static const std::vector<Fault> all = {
        {"service killed", &Peers::killService, &Peers::startService, false},
        {"service stopped", &Peers::stopService, &Peers::continueService, false},
        {"application killed", &Peers::killApp, &Peers::startApp, true},
        {"application stopped", &Peers::stopApp, &Peers::continueApp, false},
        {"both killed", &Peers::killBoth, &Peers::startBoth, true},
        {"bus killed", &Peers::killBus, &Peers::startBus, true},
        {"bus stopped", &Peers::stopBus, &Peers::continueBus, false},
    };
    return all;
}

Schedule::Schedule(uint32_t seed, size_t fault, uint32_t round) {
    std::seed_seq sequence{seed, static_cast<uint32_t>(fault), round};
    std::mt19937 random(sequence);
    const auto between = [&](int least, int most) {
        return std::chrono::milliseconds(std::uniform_int_distribution<int>(least, most)(random));
    };
    before = between(kMinBeforeMs, kMaxBeforeMs);
    lasting = between(kMinLastingMs, kMaxLastingMs);
    const auto moment = between(0, static_cast<int>(lasting.count()));
    if (between(1, kRoundsWithClose).count() == 1) close = moment;
}

}  // namespace vel::chaos
