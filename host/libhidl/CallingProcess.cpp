#include <hidl_host/CallingProcess.h>

#include <utility>

namespace vel::host {

namespace {
thread_local std::string gCallingProcess;
}

const std::string& callingProcess() {
    return gCallingProcess;
}

CallingProcess::CallingProcess(std::string name) {
    gCallingProcess = std::move(name);
}

CallingProcess::~CallingProcess() {
    gCallingProcess.clear();
}

}  // namespace vel::host
