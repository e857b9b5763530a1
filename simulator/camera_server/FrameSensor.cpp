#include "FrameSensor.h"

#include <stdexcept>

#include "FieldList.h"
#include "FrameSession.h"
#include "Program.h"
#include "StartThread.h"

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
    if (FieldList(line).word(1) == "end-node") {
        if (mSession == nullptr) throw std::invalid_argument("no frames run");
        mSession->endNode();
        return true;
    }
    const FrameSetup setup = readFrameSetup(line);
    if (mSession != nullptr && !mSession->isOver()) throw std::invalid_argument("frames run already");
    end();
    const auto session = std::make_shared<FrameSession>(mHelper, setup, mStreamFd, mPictures);
    mThread = startThread("the frames", [session] { session->run(); });
    setSession(session);
    return true;
} catch (const std::exception& error) {
    printLine("error %s", error.what());
    return false;
}

void FrameSensor::end() {
    if (mSession != nullptr) mSession->stop(false);
    if (mThread.joinable()) mThread.join();
    setSession(nullptr);
}

void FrameSensor::abort() {
    std::lock_guard<std::mutex> lock(mLock);
    mIsAborted = true;
    if (mSession != nullptr) mSession->stop(true);
}

void FrameSensor::setSession(const std::shared_ptr<FrameSession>& session) {
    std::lock_guard<std::mutex> lock(mLock);
    mSession = session;
    if (mSession != nullptr && mIsAborted) mSession->stop(true);
}

}  // namespace vel::sim
