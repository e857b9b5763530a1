#pragma once

#include <string>

namespace vel::sim {

/** Every metadata tag, those of the simulated sensor last, as a JSON array of {"name","type","vendor"}. */
std::string tagList();

}  // namespace vel::sim
