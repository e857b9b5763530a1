// Any text that a peer may send as a command: it is answered, and the registry stays within its bounds.

#include <string>

#include "DesktopHelperTestAccess.h"
#include "FuzzTarget.h"
#include "VelImgSubHelper.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static VelChiDesktopHelper* const helper = DesktopHelperTestAccess::create().release();

    const std::string command(reinterpret_cast<const char*>(data), size);
    uint32_t cameraId = 0;
    helper->updateCameraIdOnHalOpen(cameraId);
    require(!helper->handleCommand(command).empty());
    for (uint32_t id = 0; id < 16; ++id) {
        const auto& settings = DesktopHelperTestAccess::settings(*helper, id);
        require(helper->isValidCameraId(settings.requiredOverrideId));
    }
    helper->onHalClose(0);
    std::atomic_store(&helper->mImgSubHelper, std::shared_ptr<VelImgSubHelper>());
    return 0;
}
