#include "FrameKeeper.h"

#include <cstdio>
#include <stdexcept>

#include "FieldList.h"

namespace vel::sim {

namespace {

constexpr std::chrono::milliseconds kAskAgainAfter{500};
constexpr std::chrono::seconds kBeginAgainAfter{1};

// What a line says behind its time stamp.
std::string saying(const std::string& line) {
    const size_t end = line.find("] ");
    return end == std::string::npos ? line : line.substr(end + 2);
}

bool begins(const std::string& text, const char* start) {
    return text.rfind(start, 0) == 0;
}

std::string text(FrameSize size) {
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

}  // namespace

void FrameKeeper::begin() {
    mIsKept = true;
    step();
}

void FrameKeeper::change(const ConsoleRequest& request) {
    if (request.changesEffectAlone()) {
        mSettings.effect = *request.effect;
        if (mConfigured != Configured::NO) mSend("app", "effect " + mSettings.effect);
        return;
    }
    if (!mSettings.input.empty()) throw std::invalid_argument("an input has a size and a rate of its own");
    mSettings.size = request.size.value_or(mSettings.size);
    mSettings.fps = request.fps.value_or(mSettings.fps);
    mSettings.streams = request.streams.value_or(mSettings.streams);
    mSettings.effect = request.effect.value_or(mSettings.effect);
    if (mIsRunning) mSend("camera_server", "frames end");
    begin();
}

void FrameKeeper::setHalThere(bool isThere) {
    mIsHalThere = isThere;
    if (isThere) step();
}

void FrameKeeper::onCameraLine(const std::string& line) {
    static const std::string ready = "frames of ";
    const std::string said = saying(line);
    if (begins(said, ready.c_str())) {
        mReadySize = said.substr(ready.size(), said.find(' ', ready.size()) - ready.size());
        noteSize();
        mIsRunning = true;
        mConfigured = Configured::NO;
        mNotBefore = {};
    } else if (begins(said, "frames ended: ") || isRefusal(said)) {
        const bool isWell = said == "frames ended: well";
        mIsRunning = false;
        mReadySize.clear();
        mConfigured = Configured::NO;
        mNotBefore = isWell ? Clock::time_point() : Clock::now() + kBeginAgainAfter;
    } else {
        return;
    }
    step();
}

// An input has its own, and so have frames that were begun by hand.
void FrameKeeper::noteSize() {
    FrameSize size;
    if (std::sscanf(mReadySize.c_str(), "%4dx%4d", &size.width, &size.height) == 2) mSettings.size = size;
}

void FrameKeeper::onAppLine(const std::string& line) {
    const std::string said = saying(line);
    if (said == "registered") {
        mIsAppThere = true;
        mConfigured = Configured::NO;
    } else if (said == "service lost") {
        mIsAppThere = false;
    } else if (begins(said, "frames of ")) {
        mConfigured = Configured::YES;
    } else if (begins(said, "error ") && mConfigured == Configured::ASKED) {
        mConfigured = Configured::NO;
        mNotBefore = Clock::now() + kAskAgainAfter;
    } else {
        return;
    }
    step();
}

void FrameKeeper::onAppGone() {
    mIsAppThere = false;
    mConfigured = Configured::NO;
}

void FrameKeeper::onCameraGone() {
    mIsKept = false;
    mIsRunning = false;
    mReadySize.clear();
}

// Of the command that begins frames.
bool FrameKeeper::isRefusal(const std::string& said) const {
    return mIsRunning && mReadySize.empty() && begins(said, "error ") && said != "error frames run already";
}

void FrameKeeper::step() {
    if (Clock::now() < mNotBefore) return;
    if (mIsKept && !mIsRunning) beginFrames();
    const bool isAwaited = !mReadySize.empty() && mConfigured == Configured::NO;
    if (isAwaited && mIsHalThere && mIsAppThere) configureApp();
}

void FrameKeeper::beginFrames() {
    mIsRunning = true;
    mSend("camera_server", mSettings.input.empty()
                               ? "frames 0 size=" + text(mSettings.size) +
                                     " streams=" + std::to_string(mSettings.streams) +
                                     " fps=" + std::to_string(mSettings.fps)
                               : "frames 0 loop=1 input=" + FieldList::quoted(mSettings.input));
}

void FrameKeeper::configureApp() {
    mConfigured = Configured::ASKED;
    mSend("app", "frames size=" + mReadySize + " effect=" + mSettings.effect);
}

}  // namespace vel::sim
