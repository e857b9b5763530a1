#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Recorder.h"

namespace vel::sim {

/** One thing that is done and all that must be seen of it. */
struct Step {
    std::string title;
    std::string actor;    // the program that gets the line on its input
    std::string command;  // empty: nothing is done, the expectations are waited for
    std::vector<Expectation> expectations;
};

using Scene = std::vector<Step>;

/**
 * What steps expect to see: a message that the service forwarded, the reply that it brought back, and what
 * the two other programs print.
 */
Expectation message(const std::string& from, const std::string& to, const std::string& text);
Expectation reply(const std::string& from, const std::string& to, const std::string& text);
Expectation camera(const std::string& text);
Expectation app(const std::string& text);

/**
 * Plays the steps in order; each waits until all that it expects was seen. Stops at the first step that
 * misses something and returns what is missing, a line each; empty when all was seen.
 */
std::vector<std::string> play(
    const Scene& scene, Recorder& recorder,
    const std::function<bool(const std::string& actor, const std::string& line)>& send);

}  // namespace vel::sim
