#include "Programs.h"

#include <stdexcept>

#include "DesktopBusNames.h"

using vel::sim::ChildProcess;

std::string programPath(const std::string& name) {
    return VEL_PROGRAM_DIR "/" + name;
}

std::unique_ptr<ChildProcess> startProgram(std::vector<std::string> command, const std::string& busAddress) {
    ChildProcess::Options options;
    options.command = std::move(command);
    std::string& program = options.command.front();
    if (program.find('/') == std::string::npos) program = programPath(program);
    if (!busAddress.empty()) options.environment = {{vel::desktop_bus::kAddressVariable, busAddress}};
    return std::make_unique<ChildProcess>(std::move(options));
}

std::unique_ptr<ChildProcess> startService(const std::string& busAddress) {
    auto service = startProgram({"desktop_service", "--trace"}, busAddress);
    if (!service->waitForLine("ready")) throw std::runtime_error("the desktop service did not start");
    return service;
}
