#include "HelperLifetime.h"

#include <atomic>

#include "VelChiDesktopHelper.h"

namespace helper_lifetime {

namespace {
std::atomic<VelChiDesktopHelper*> gInstance{nullptr};
std::atomic<bool> gOver{false};
}  // namespace

void begin(VelChiDesktopHelper* instance) {
    gOver.store(false);
    gInstance.store(instance);
}

void end() {
    gOver.store(true);
    gInstance.store(nullptr);
}

bool isOver() {
    return gOver.load();
}

VelChiDesktopHelper* instance() {
    VelChiDesktopHelper* known = gInstance.load();
    return known != nullptr ? known : VelChiDesktopHelper::getInstance();
}

}  // namespace helper_lifetime
