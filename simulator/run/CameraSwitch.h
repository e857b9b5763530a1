#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Recorder.h"

namespace vel::sim {

// One thing that is done and all that must be seen of it.
struct Step {
    std::string title;
    std::string actor;    // the program that gets the line on its input
    std::string command;  // empty: nothing is done, the expectations are waited for
    std::vector<Expectation> expectations;
};

/** Open framework camera 0, switch it to camera 2, ask, close, and open it again at its default. */
std::vector<Step> cameraSwitchSteps();

/**
 * Plays the steps in order; each waits until all that it expects was seen. Stops at the first step that
 * misses something and returns what is missing, a line each; empty when all was seen.
 */
std::vector<std::string> play(
    const std::vector<Step>& steps, Recorder& recorder,
    const std::function<bool(const std::string& actor, const std::string& line)>& send);

}  // namespace vel::sim
