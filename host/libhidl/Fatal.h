#pragma once

#include <string>

namespace vel::host {

/** Logs `text` at FATAL under the runtime's tag and aborts the process. */
[[noreturn]] void fatal(const std::string& text);

}  // namespace vel::host
