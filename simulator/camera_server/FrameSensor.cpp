#include "FrameSensor.h"

#include <stdexcept>

#include "FieldList.h"
#include "FrameSession.h"
#include "Program.h"

namespace vel::sim {

namespace {
constexpr char kVerb[] = "frames";
}

FrameSensor::FrameSensor(VelChiDesktopHelper* helper) : mHelper(helper) {}

FrameSensor::~FrameSensor() {
    end();
}

bool FrameSensor::isCommand(const std::string& line) {
    return FieldList::verbOf(line) == kVerb;
}

bool FrameSensor::execute(const std::string& line) try {
    if (FieldList(line).word(1) == "end") {
        end();
        return true;
    }
    const FrameSetup setup = readFrameSetup(line);
    if (mSession != nullptr && !mSession->isOver()) throw std::invalid_argument("frames run already");
    end();
    mSession = std::make_shared<FrameSession>(mHelper, setup, mStreamFd);
    mThread = std::thread([session = mSession] { session->run(); });
    return true;
} catch (const std::invalid_argument& error) {
    printLine("error %s", error.what());
    return false;
}

void FrameSensor::waitUntilOver() {
    if (mThread.joinable()) mThread.join();
}

void FrameSensor::end() {
    stop(false);
}

void FrameSensor::abort() {
    stop(true);
}

void FrameSensor::stop(bool isAborted) {
    if (mSession != nullptr) mSession->stop(isAborted);
    if (mThread.joinable()) mThread.join();
    mSession = nullptr;
}

}  // namespace vel::sim
