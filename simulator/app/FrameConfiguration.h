#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Effects.h"
#include "FrameView.h"

namespace vel::sim {

/** What a command says of the frames of image substitution. */
struct FrameConfiguration {
    FrameSize size;
    int buffers = 0;  // of the HAL's reader
    int hold = -1;    // keeps every frame of a queue after that number; negative for none
    Effect effect = Effect::Tint;

    bool holds(uint64_t framesTaken) const { return hold >= 0 && framesTaken >= static_cast<uint64_t>(hold); }
};

/**
 * Reads "frames size=1920x1080 [effect=tint] [buffers=16] [hold=N]". Throws std::invalid_argument with one
 * line for anything else.
 */
FrameConfiguration readFrameConfiguration(const std::string& line);

/** The command that configures image substitution in the HAL. */
std::string configurationCommand(const FrameConfiguration& configuration);

/** The bytes of a frame's row that the HAL has agreed to; empty when its reply is a refusal. */
std::optional<int> acceptedRowBytes(const std::string& reply);

}  // namespace vel::sim
