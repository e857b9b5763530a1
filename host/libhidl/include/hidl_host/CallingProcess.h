#pragma once

#include <string>

namespace vel::host {

/** The process whose call this thread carries out: a name of the transport's, or empty for this process. */
const std::string& callingProcess();

/**
 * Names the calling process of this thread, until its own end. For the transport, around the calls that it
 * brings in.
 */
class CallingProcess {
  public:
    explicit CallingProcess(std::string name);
    ~CallingProcess();
    CallingProcess(const CallingProcess&) = delete;
    CallingProcess& operator=(const CallingProcess&) = delete;
};

}  // namespace vel::host
