#pragma once

#include <string>

#include "FrameView.h"

namespace vel::sim {

/** What the frames of a command are made of, and where they go. */
struct FrameSetup {
    FrameSize size{1920, 1080};
    int streams = 1;
    int fps = 30;
    int count = 0;          // of frames a stream; 0 for no limit
    std::string input;      // a file; "-" for the stream that the program was given, empty for test pictures
    bool isLooped = false;  // the input is played at its own rate, and from its start again at its end
    std::string output;     // a file for the replacements of stream 0; empty for none
    std::string sheet;      // a file for the contact sheet; empty for none

    /** Every frame reaches the output. */
    bool isLossless() const { return !input.empty() || !output.empty(); }
};

/**
 * Reads "frames CAMERA [size=1920x1080] [streams=1] [fps=30] [count=0] [input=FILE] [output=FILE]
 * [sheet=FILE] [loop=0]". An input has one stream. Throws std::invalid_argument with one line for anything
 * else.
 */
FrameSetup readFrameSetup(const std::string& line);

}  // namespace vel::sim
