#pragma once

#include <optional>
#include <string>

#include "FrameView.h"

namespace vel::sim {

/** What a page asks for. */
struct ConsoleRequest {
    enum class Kind { LINE, FRAMES, FAULT, SAVE };

    Kind kind = Kind::SAVE;
    std::string peer;    // of a line, a fault
    std::string line;    // of a line
    std::string action;  // of a fault: kill, stop, continue, restart
    // Of frames; what is not given stays.
    std::optional<FrameSize> size;
    std::optional<int> fps;
    std::optional<int> streams;
    std::optional<std::string> effect;

    bool changesEffectAlone() const { return effect && !size && !fps && !streams; }
};

/** Reads a request's JSON. Throws std::invalid_argument with one line for anything that it is not. */
ConsoleRequest readConsoleRequest(const std::string& json);

}  // namespace vel::sim
