#include "CamDesktopCallback.h"

#include <string>

#include "HelperLifetime.h"
#include "VelChiDesktopHelper.h"

using android::hardware::hidl_string;
using android::hardware::Return;
using android::hardware::Void;

CamDesktopCallback::CamDesktopCallback(VelChiDesktopHelper* helper) : mHelper(helper) {}

Return<void> CamDesktopCallback::onCommand(const hidl_string& command, onCommand_cb reply) {
    std::string answer;
    if (const helper_lifetime::Visit visit(mHelper); visit)
        answer = mHelper->handleCommand(std::string(command.c_str(), command.size()));
    hidl_string text;
    text.setToExternal(answer.data(), answer.size());
    reply(text);
    return Void();
}

void CamDesktopCallback::serviceDied(uint64_t /*cookie*/,
                                     const android::wp<android::hidl::base::V1_0::IBase>& /*who*/) {
    if (const helper_lifetime::Visit visit(mHelper); visit) mHelper->handleDeathNotification();
}
