#pragma once

#include <VelChiDesktopHelper.h>

#include <array>
#include <mutex>
#include <optional>
#include <thread>

#include "StopSignal.h"

namespace vel::sim {

/**
 * Tells the library's records of its cameras as events, all at the start and then those that change. A thread
 * of its own looks now and then, since the application changes them, too; none when nobody wants events.
 */
class CameraWatch {
  public:
    /** Throws std::system_error without a thread. */
    explicit CameraWatch(VelChiDesktopHelper* helper);
    ~CameraWatch();
    CameraWatch(const CameraWatch&) = delete;
    CameraWatch& operator=(const CameraWatch&) = delete;

    /** Looks now. Any thread. */
    void look();

  private:
    using Record = VelChiDesktopHelper::DesktopSettings;
    using Records = std::array<Record, 16>;

    Records read() const;
    static bool isEqual(const Record& one, const Record& other);
    static void tell(uint32_t fwkId, const Record& record);

    VelChiDesktopHelper* const mHelper;
    std::mutex mLock;
    std::optional<Records> mTold;  // guarded by mLock
    StopSignal mEnd;
    std::thread mThread;
};

/** Passes on all that the library logs as events, beside standard error, when anybody wants them. */
void tellLibraryLog();

}  // namespace vel::sim
