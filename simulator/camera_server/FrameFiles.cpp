#include "FrameFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <stdexcept>
#include <utility>

#include "TestPicture.h"

namespace vel::sim {

namespace {
constexpr int kMaxLoopedFps = 120;
}

PictureSource::PictureSource(const FrameSetup& setup, int streamFd, int cancelFd)
    : mSize(setup.size),
      mRate{setup.fps, 1},
      mLoopedFile(setup.isLooped ? setup.input : ""),
      mCancelFd(cancelFd) {
    if (setup.input == "-") {
        mVideo = std::make_unique<VideoInput>(streamFd, "standard input", cancelFd);
    } else if (!setup.input.empty()) {
        mVideo = std::make_unique<VideoInput>(setup.input, cancelFd);
    }
}

int PictureSource::fps() const {
    if (mLoopedFile.empty()) return isVideo() ? 0 : mRate.frames;
    const FrameRate own = rate();
    return own.frames < 1 ? mRate.frames
                          : std::clamp((own.frames + own.seconds / 2) / own.seconds, 1, kMaxLoopedFps);
}

void PictureSource::readFirst() {
    if (mVideo == nullptr) return;
    mFirst.resize(frameBytes(size()));
    (void)mVideo->readFrame(FrameView(mFirst.data(), size()));
}

FrameStream::Draw PictureSource::drawing(uint32_t stream) {
    if (isVideo()) return [this](uint32_t, const FrameView& frame) { return drawVideo(frame); };
    return
        [picture = std::make_shared<TestPicture>(mSize, stream)](uint32_t counter, const FrameView& frame) {
            picture->draw(counter, frame);
            return true;
        };
}

bool PictureSource::drawVideo(const FrameView& frame) {
    if (std::exchange(mIsFirstNext, false)) {
        copyFrame(ConstFrameView(mFirst.data(), size()), frame);
        if (mLoopedFile.empty()) mFirst = {};
        return true;
    }
    mIsWaiting = true;
    const bool isRead = readFrame(frame) || (!mLoopedFile.empty() && readAnew(frame));
    mIsWaiting = false;
    return isRead;
}

bool PictureSource::readFrame(const FrameView& frame) {
    if (!mVideo->readFrame(frame)) return false;
    mIsPicture = false;
    return true;
}

// A picture is not read again each time.
bool PictureSource::readAnew(const FrameView& frame) {
    if (mIsPicture) {
        copyFrame(ConstFrameView(mFirst.data(), size()), frame);
        return true;
    }
    const FrameSize before = size();
    mVideo = std::make_unique<VideoInput>(mLoopedFile, mCancelFd);
    if (size() != before) throw std::runtime_error(mLoopedFile + " has changed");
    return mVideo->readFrame(frame);
}

namespace {

// The outputs that are not finished. Never destroyed: a process may end while its threads run.
struct Unfinished {
    std::mutex lock;
    std::set<std::string> files;
};
Unfinished& unfinished() {
    static Unfinished& instance = *new Unfinished;
    return instance;
}

void removeRegular(const std::string& file) {
    struct stat status {};
    if (stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode)) unlink(file.c_str());
}

}  // namespace

OutputFile::OutputFile(const std::string& file, FrameSize size, FrameRate rate)
    : mFile(file), mWriter(file, size, rate) {
    std::lock_guard<std::mutex> lock(unfinished().lock);
    unfinished().files.insert(mFile);
}

OutputFile::~OutputFile() {
    std::lock_guard<std::mutex> lock(unfinished().lock);
    if (unfinished().files.erase(mFile) != 0) removeRegular(mFile);
}

void OutputFile::finish() {
    mWriter.close();
    std::lock_guard<std::mutex> lock(unfinished().lock);
    unfinished().files.erase(mFile);
}

void OutputFile::removeUnfinished() {
    std::lock_guard<std::mutex> lock(unfinished().lock);
    for (const std::string& file : unfinished().files)
        removeRegular(file);
}

bool isSameFile(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino && S_ISREG(first.st_mode);
}

}  // namespace vel::sim
