#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "Peers.h"

namespace vel::chaos {

/** What is done to the peers, and how it is undone. */
struct Fault {
    const char* name;
    void (Peers::*begin)();
    void (Peers::*end)();
    bool endsFrames;  // the application must configure them again
};

const std::vector<Fault>& faults();

/** The moments of a round. The same for the same seed, fault and number of the round. */
struct Schedule {
    std::chrono::milliseconds before;                // from healthy peers to the fault
    std::chrono::milliseconds lasting;               // from its beginning to its end
    std::optional<std::chrono::milliseconds> close;  // from its beginning to a close of the desktop camera

    Schedule(uint32_t seed, size_t fault, uint32_t round);
};

}  // namespace vel::chaos
