#pragma once

namespace android {

/**
 * Ends the process with a line in the log: the named platform operation has no counterpart on a workstation,
 * and a silent answer would let a caller believe in it.
 */
[[noreturn]] void abortAbsent(const char* operation);

}  // namespace android
