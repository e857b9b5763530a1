#include "FrameFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <set>

#include "TestPicture.h"

namespace vel::sim {

PictureSource::PictureSource(const FrameSetup& setup, int streamFd, int cancelFd)
    : mSize(setup.size), mRate{setup.fps, 1} {
    if (setup.input == "-") {
        mVideo = std::make_unique<VideoInput>(streamFd, "standard input", cancelFd);
    } else if (!setup.input.empty()) {
        mVideo = std::make_unique<VideoInput>(setup.input, cancelFd);
    }
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
    if (mFirst.empty()) {
        mIsWaiting = true;
        const bool isRead = mVideo->readFrame(frame);
        mIsWaiting = false;
        return isRead;
    }
    copyFrame(ConstFrameView(mFirst.data(), size()), frame);
    mFirst = {};
    return true;
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
