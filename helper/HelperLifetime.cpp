#include "HelperLifetime.h"

#include <unistd.h>

#include <atomic>

#include "DesktopHelperLink.h"
#include "VelChiDesktopHelper.h"

namespace helper_lifetime {

namespace {
std::atomic<VelChiDesktopHelper*> gInstance{nullptr};
std::atomic<const VelChiDesktopHelper*> gOver{nullptr};
std::atomic<int> gVisitors{0};

constexpr int kMaxLeavingPauses = 100;
constexpr useconds_t kLeavingPauseUs = 1000;
}  // namespace

void begin(VelChiDesktopHelper* instance) {
    gOver.store(nullptr);
    gInstance.store(instance);
}

void end(const VelChiDesktopHelper* instance) {
    gOver.store(instance);
    gInstance.store(nullptr);
    for (int pause = 0; gVisitors.load() > 0 && pause < kMaxLeavingPauses; ++pause)
        usleep(kLeavingPauseUs);
}

// Counted first: whoever sees that it is not over is then seen by end().
Visit::Visit(const VelChiDesktopHelper* instance) {
    gVisitors.fetch_add(1);
    mIsAllowed = gOver.load() != instance;
}

Visit::~Visit() {
    gVisitors.fetch_sub(1);
}

}  // namespace helper_lifetime

VelChiDesktopHelper* desktop_helper_link::instance() {
    VelChiDesktopHelper* known = helper_lifetime::gInstance.load();
    return known != nullptr ? known : VelChiDesktopHelper::getInstance();
}
