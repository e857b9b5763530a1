#pragma once

#include <functional>
#include <string>

#include "Recorder.h"

namespace vel::sim {

/** What the frames of a run are made of, where they go, and what the application does to them. */
struct FrameOptions {
    std::string input;  // a file, "-" for standard input, empty for test pictures
    std::string output;
    std::string effect = "tint";
    int patience = 45;  // seconds without progress until the scene is given up
};

/**
 * Streams frames through image substitution as long as the input lasts, prints what the programs say of it,
 * and returns why it did not end well, in one line; empty when it did. An interrupted recorder ends it, and
 * so do peers that make no progress; standard input may take its time. isAlive: whether the camera server
 * still runs.
 */
std::string playFrames(const FrameOptions& options, Recorder& recorder,
                       const std::function<bool(const std::string& peer, const std::string& line)>& send,
                       const std::function<bool()>& isAlive);

}  // namespace vel::sim
