#pragma once

#include <hidl/HidlSupport.h>
#include <korvanta/hardware/camera/desktop/1.0/ICameraDesktopCallback.h>

class VelChiDesktopHelper;

/**
 * What the desktop service calls: takes the peers' commands, and hears of the service's death.
 *
 * Created by the helper for its whole life and registered with the service at every connect. Both operations
 * arrive on the process's binder threads, take no lock of their own, and do nothing once the helper is being
 * destroyed.
 */
class CamDesktopCallback : public korvanta::hardware::camera::desktop::V1_0::ICameraDesktopCallback,
                           public android::hardware::hidl_death_recipient {
  public:
    /** The helper is borrowed and must outlive the calls of the service. */
    explicit CamDesktopCallback(VelChiDesktopHelper* helper);

    /** Hands the command to the helper and calls the reply function once, with its answer. */
    android::hardware::Return<void> onCommand(const android::hardware::hidl_string& command,
                                              onCommand_cb reply) override;

    /** Tells the helper that the service is gone, whichever proxy the notice is about. */
    void serviceDied(uint64_t cookie, const android::wp<android::hidl::base::V1_0::IBase>& who) override;

  private:
    VelChiDesktopHelper* mHelper;
};
