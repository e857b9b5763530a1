#pragma once

#include <string>
#include <vector>

namespace vel::sim {

/**
 * Writes a trace event file of lines of events, in any order: sorted by time, with the names of programs and
 * tracks. Lines that are no events are left out, and so are flows without a start or an end and ends without
 * a beginning; what was not ended ends with the session. Throws std::runtime_error with one line when the
 * file cannot be written; there is then none, or the one from before.
 */
void writeTraceFile(const std::string& file, const std::vector<std::string>& lines);

}  // namespace vel::sim
