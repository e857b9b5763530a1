#pragma once

#include <string>
#include <vector>

namespace vel::sim {

/** A session that was saved. */
struct Replay {
    std::string figures;              // a JSON object
    std::vector<std::string> events;  // lines of JSON, oldest first
};

/** Reads what a session's save left. Throws std::runtime_error with one line for any other file. */
Replay readReplay(const std::string& file);

}  // namespace vel::sim
