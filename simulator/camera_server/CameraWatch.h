#pragma once

#include <memory>
#include <thread>

#include "StopSignal.h"

class VelChiDesktopHelper;

namespace vel::sim {

/**
 * Tells the library's records of its cameras as events, all at the start and then those that change, as they
 * are found on a thread of its own. Without a thread when nobody wants events.
 */
class CameraWatch {
  public:
    /** Throws std::system_error without a thread. */
    explicit CameraWatch(VelChiDesktopHelper* helper);
    ~CameraWatch();
    CameraWatch(const CameraWatch&) = delete;
    CameraWatch& operator=(const CameraWatch&) = delete;

  private:
    void run();

    VelChiDesktopHelper* const mHelper;
    StopSignal mEnd;
    std::thread mThread;
};

/** Passes on all that the library logs as events, beside standard error, when anybody wants them. */
void tellLibraryLog();

}  // namespace vel::sim
