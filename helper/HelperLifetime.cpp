#include "HelperLifetime.h"

#include <unistd.h>

#include <atomic>

#include "VelChiDesktopHelper.h"

namespace helper_lifetime {

namespace {
std::atomic<VelChiDesktopHelper*> gInstance{nullptr};
std::atomic<bool> gOver{false};
std::atomic<int> gVisitors{0};

constexpr int kMaxLeavingPauses = 100;
constexpr useconds_t kLeavingPauseUs = 1000;
}  // namespace

void begin(VelChiDesktopHelper* instance) {
    gOver.store(false);
    gInstance.store(instance);
}

void end() {
    gOver.store(true);
    gInstance.store(nullptr);
    for (int pause = 0; gVisitors.load() > 0 && pause < kMaxLeavingPauses; ++pause)
        usleep(kLeavingPauseUs);
}

// Counted first: whoever sees that it is not over is then seen by end().
Visit::Visit() {
    gVisitors.fetch_add(1);
    mIsAllowed = !gOver.load();
}

Visit::~Visit() {
    gVisitors.fetch_sub(1);
}

VelChiDesktopHelper* instance() {
    VelChiDesktopHelper* known = gInstance.load();
    return known != nullptr ? known : VelChiDesktopHelper::getInstance();
}

}  // namespace helper_lifetime
