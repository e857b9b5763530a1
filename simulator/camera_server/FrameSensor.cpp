#include "FrameSensor.h"

#include <VelChiDesktopHelper.h>
#include <android-base/unique_fd.h>
#include <media/NdkImageReader.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <optional>
#include <stdexcept>
#include <vector>

#include "ContactSheet.h"
#include "FieldList.h"
#include "FrameBuffer.h"
#include "FrameStream.h"
#include "Program.h"
#include "TestPicture.h"
#include "Timeline.h"
#include "VideoInput.h"
#include "Y4mWriter.h"

namespace vel::sim {

using android::GraphicBuffer;
using android::sp;

namespace {

constexpr char kVerb[] = "frames";
constexpr int kMaxStreams = 4;
constexpr int kPreviewFps = 30;
constexpr std::chrono::seconds kReportEvery{1};

struct SensorSetup {
    FrameSize size{1920, 1080};
    int streams = 1;
    int fps = 30;
    int count = 0;
    std::string input;
    std::string output;
    std::string sheet;

    bool isLossless() const { return !input.empty() || !output.empty(); }
};

SensorSetup readSetup(const std::string& line) {
    FieldList fields(line);
    SensorSetup setup;
    (void)fields.pair("size", setup.size.width, setup.size.height);
    if (!isFrameSize(setup.size)) throw std::invalid_argument("no such frame size");
    setup.streams = fields.number("streams", setup.streams, 1, kMaxStreams);
    setup.fps = fields.number("fps", setup.fps, 1, 1000);
    setup.count = fields.number("count", setup.count, 0, INT32_MAX);
    setup.input = fields.text("input");
    setup.output = fields.text("output");
    setup.sheet = fields.text("sheet");
    const std::string& camera = fields.word(1);
    if (camera.empty() || camera.find_first_not_of("0123456789") != std::string::npos)
        throw std::invalid_argument("frames need a camera, as in frames 0");
    fields.rejectOthers(2);
    if (setup.output == "-") throw std::invalid_argument("frames cannot be written to standard output");
    if (!setup.input.empty()) setup.streams = 1;
    return setup;
}

bool isPowerOfTwo(uint32_t number) {
    return (number & (number - 1)) == 0;
}

// The moments that the contact sheet shows: soon after the start, then ever rarer.
bool isWorthShowing(uint32_t counter) {
    return counter == 0 || (counter >= 7 && isPowerOfTwo(counter + 1));
}

double percentileMs(const LatencyStats& latency, double percent) {
    return static_cast<double>(latency.percentileNs(percent)) / 1e6;
}

bool isSameFile(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino && S_ISREG(first.st_mode);
}

// The file of replaced frames; gone again unless it was finished.
class OutputFile {
  public:
    OutputFile(const std::string& file, FrameSize size, FrameRate rate)
        : mFile(file), mWriter(file, size, rate) {}
    ~OutputFile() {
        struct stat status {};
        if (!mFinished && stat(mFile.c_str(), &status) == 0 && S_ISREG(status.st_mode)) unlink(mFile.c_str());
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(const ConstFrameView& frame) { mWriter.writeFrame(frame); }
    void finish() {
        mWriter.close();
        mFinished = true;
    }

  private:
    const std::string mFile;
    Y4mWriter mWriter;
    bool mFinished = false;
};

}  // namespace

// One run of the sensor, from its start to the table.
class FrameSensor::Session {
  public:
    Session(VelChiDesktopHelper* helper, const SensorSetup& setup, int streamFd)
        : mHelper(helper), mSetup(setup), mStreamFd(streamFd) {}

    // Never throws: tells its outcome in a line.
    void run();
    // Ends the frames early, which is a failure of those that are aborted or have an input. Any thread.
    void stop(bool isAborted);
    bool isOver() const { return mIsOver; }

  private:
    void play();
    void openInput();
    void readFirst();
    void makeStreams();
    FrameStream::Setup streamSetup(uint32_t index);
    FrameStream::Draw drawing(uint32_t index);
    bool drawInput(const FrameView& frame);
    void runStream(FrameStream& stream);
    void streamToTheEnd();
    void runPreview();
    void output(const FrameHeader& captured, const ConstFrameView& picture,
                const std::optional<FrameHeader>& replacement, const std::optional<ConstFrameView>& replaced);
    void report();
    void finishFiles();
    void printTable() const;
    FrameCounts total() const;
    void fail(const std::string& why);
    void judge();

    VelChiDesktopHelper* const mHelper;
    SensorSetup mSetup;
    const int mStreamFd;
    FrameRate mRate;
    const android::base::unique_fd mCancel{eventfd(0, EFD_CLOEXEC)};  // ends the waits for input
    std::unique_ptr<VideoInput> mInput;
    std::vector<uint8_t> mFirst;  // the input's first frame, until it is drawn
    std::unique_ptr<OutputFile> mOutput;
    std::vector<std::unique_ptr<FrameStream>> mStreams;
    std::vector<std::unique_ptr<TestPicture>> mPictures;
    StopSignal mStop;        // ends the streams
    StopSignal mStreamsEnd;  // the streams have ended
    std::atomic<int> mRunning{0};
    std::atomic<uint64_t> mPreviewFrames{0};
    std::atomic<bool> mIsOver{false};
    std::mutex mLock;
    ContactSheet mSheet;   // guarded by mLock
    std::string mProblem;  // guarded by mLock; the first one
};

void FrameSensor::Session::run() {
    try {
        play();
    } catch (const std::exception& error) {
        fail(error.what());
    }
    mOutput.reset();
    mInput.reset();
    std::lock_guard<std::mutex> lock(mLock);
    mIsOver = true;  // first: who reads the line may start the next frames
    printLine("frames ended: %s", mProblem.empty() ? "well" : mProblem.c_str());
}

void FrameSensor::Session::stop(bool isAborted) {
    mStop.set();
    {
        std::lock_guard<std::mutex> lock(mLock);
        const bool isFailure = isAborted || !mSetup.input.empty();
        if (isFailure && mProblem.empty()) mProblem = isAborted ? "aborted" : "ended before its input";
    }
    eventfd_write(mCancel, 1);
}

void FrameSensor::Session::play() {
    openInput();
    if (isSameFile(mSetup.input, mSetup.output))
        throw std::runtime_error("input and output are the same file");
    if (!mSetup.output.empty()) mOutput = std::make_unique<OutputFile>(mSetup.output, mSetup.size, mRate);
    readFirst();
    makeStreams();
    printLine("frames of %dx%d ready, %d streams", mSetup.size.width, mSetup.size.height, mSetup.streams);
    mHelper->sendImgSubHalReadyToApp();

    std::thread preview([this] { runPreview(); });
    streamToTheEnd();
    preview.join();
    mHelper->disconnectProducer();
    mHelper->ImgSubNodeDisconnect();
    printTable();
    judge();
    finishFiles();
}

void FrameSensor::Session::openInput() {
    mRate = {mSetup.fps, 1};
    if (mSetup.input.empty()) return;
    mInput = mSetup.input == "-" ? std::make_unique<VideoInput>(mStreamFd, "standard input", mCancel)
                                 : std::make_unique<VideoInput>(mSetup.input, mCancel);
    mSetup.size = mInput->size();
    mRate = mInput->rate();
}

// Before the application hears of the frames: most faults of an input show by then.
void FrameSensor::Session::readFirst() {
    if (mInput == nullptr) return;
    mFirst.resize(frameBytes(mSetup.size));
    (void)mInput->readFrame(FrameView(mFirst.data(), mSetup.size));
}

void FrameSensor::Session::makeStreams() {
    for (uint32_t index = 0; index < static_cast<uint32_t>(mSetup.streams); ++index) {
        mPictures.push_back(mInput ? nullptr : std::make_unique<TestPicture>(mSetup.size, index));
        mStreams.push_back(std::make_unique<FrameStream>(mHelper, streamSetup(index), mStop));
    }
}

FrameStream::Setup FrameSensor::Session::streamSetup(uint32_t index) {
    FrameStream::Setup setup;
    setup.size = mSetup.size;
    setup.stream = index;
    setup.count = static_cast<uint32_t>(mSetup.count);
    setup.fps = mInput ? 0 : mSetup.fps;
    setup.isLossless = mSetup.isLossless();
    setup.hasCounters = mInput == nullptr;
    setup.draw = drawing(index);
    setup.output = [this](const auto&... frames) { output(frames...); };
    return setup;
}

FrameStream::Draw FrameSensor::Session::drawing(uint32_t index) {
    if (mInput) return [this](uint32_t, const FrameView& frame) { return drawInput(frame); };
    return [picture = mPictures[index].get()](uint32_t counter, const FrameView& frame) {
        picture->draw(counter, frame);
        return true;
    };
}

bool FrameSensor::Session::drawInput(const FrameView& frame) {
    if (mFirst.empty()) return mInput->readFrame(frame);
    copyFrame(ConstFrameView(mFirst.data(), mSetup.size), frame);
    mFirst = {};
    return true;
}

// Runs the streams, each on its thread, and reports until the last one has ended.
void FrameSensor::Session::streamToTheEnd() {
    mRunning = static_cast<int>(mStreams.size());
    std::vector<std::thread> threads;
    for (const auto& stream : mStreams)
        threads.emplace_back([this, &stream] { runStream(*stream); });
    for (auto next = StopSignal::Clock::now() + kReportEvery; mStreamsEnd.waitUntil(next);
         next += kReportEvery)
        report();
    for (std::thread& thread : threads)
        thread.join();
}

void FrameSensor::Session::runStream(FrameStream& stream) {
    try {
        stream.run();
    } catch (const std::exception& error) {
        fail(error.what());
    }
    if (--mRunning == 0) mStreamsEnd.set();
}

// The application frame path, on the one thread that it wants.
void FrameSensor::Session::runPreview() {
    const TestPicture picture(kPreviewSize, 0);
    const auto rowBytes = static_cast<uint32_t>(frameRowBytes(kPreviewSize));
    const auto start = StopSignal::Clock::now();
    bool isConnected = false;
    for (uint32_t counter = 0;; ++counter) {
        const auto due = start + std::chrono::milliseconds(1000LL * counter / kPreviewFps);
        if (!mStreamsEnd.waitUntil(due)) return;
        if (!isConnected) isConnected = mHelper->connectProducer(rowBytes, 1, AIMAGE_FORMAT_RAW_PRIVATE);
        const sp<GraphicBuffer> buffer = isConnected ? mHelper->getFrameToFill() : nullptr;
        if (buffer == nullptr) continue;
        const int64_t captureNs = steadyNowNs();
        {
            const MappedBuffer mapped(buffer, GraphicBuffer::USAGE_SW_WRITE_OFTEN);
            if (mapped.data() != nullptr) picture.draw(counter, FrameView(mapped.data(), kPreviewSize));
        }
        mHelper->queueFilledFrame(captureNs);
        ++mPreviewFrames;
    }
}

void FrameSensor::Session::output(const FrameHeader& captured, const ConstFrameView& picture,
                                  const std::optional<FrameHeader>& replacement,
                                  const std::optional<ConstFrameView>& replaced) {
    if (captured.stream == 0 && mOutput && replaced) mOutput->write(*replaced);
    if (mSetup.sheet.empty() || !isWorthShowing(captured.counter)) return;
    ContactSheet::Moment moment;
    moment.stream = captured.stream;
    moment.capturedCounter = captured.counter;
    if (replacement) {
        moment.replacedCounter = replacement->counter;
        moment.latencyNs = steadyNowNs() - replacement->captureNs;
    }
    std::lock_guard<std::mutex> lock(mLock);
    (void)mSheet.add(moment, picture, replaced);
}

FrameCounts FrameSensor::Session::total() const {
    FrameCounts sum;
    for (const auto& stream : mStreams)
        sum += stream->counts();
    return sum;
}

void FrameSensor::Session::report() {
    const FrameCounts sum = total();
    printLine("frames so far: %" PRIu64 " sent, %" PRIu64 " replaced in time, %" PRIu64 " repeated, %" PRIu64
              " late, %" PRIu64 " dropped",
              sum.sent, sum.replaced, sum.repeated, sum.late, sum.dropped);
}

void FrameSensor::Session::printTable() const {
    printLine(
        "stream     sent  in time  repeated   late  dropped  copies   p50 ms   p90 ms   p99 ms   max ms");
    for (size_t index = 0; index < mStreams.size(); ++index) {
        const FrameCounts counts = mStreams[index]->counts();
        const LatencyStats& latency = mStreams[index]->latency();
        printLine("stream %zu %6" PRIu64 " %8" PRIu64 " %9" PRIu64 " %6" PRIu64 " %8" PRIu64 " %7" PRIu64
                  " %8.2f %8.2f %8.2f %8.2f",
                  index, counts.sent, counts.replaced, counts.repeated, counts.late, counts.dropped,
                  counts.copies, percentileMs(latency, 50), percentileMs(latency, 90),
                  percentileMs(latency, 99), static_cast<double>(latency.maxNs()) / 1e6);
    }
    printLine("preview  %6" PRIu64, mPreviewFrames.load());
}

void FrameSensor::Session::judge() {
    const FrameCounts sum = total();
    if (sum.wrong > 0) fail(std::to_string(sum.wrong) + " replacements show another frame than they say");
    if (sum.copies > 0) fail(std::to_string(sum.copies) + " copies of frames were made");
    if (sum.replaced + sum.late == 0) fail("no replacement came");
    // The decoder goes on behind what it cannot read, for example the end of a file that was cut.
    const std::string complaint = mInput && !mStop.isSet() ? mInput->complaint() : "";
    if (!complaint.empty()) fail(mSetup.input + " is damaged: " + complaint);
}

void FrameSensor::Session::finishFiles() {
    std::unique_lock<std::mutex> lock(mLock);
    if (!mProblem.empty()) return;
    if (!mSetup.sheet.empty() && mSheet.rows() > 0) mSheet.write(mSetup.sheet);
    if (mOutput) mOutput->finish();  // last: a run that fails leaves no output
}

// The first problem is told; the others follow from it.
void FrameSensor::Session::fail(const std::string& why) {
    mStop.set();
    std::lock_guard<std::mutex> lock(mLock);
    if (mProblem.empty()) mProblem = why;
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
    const SensorSetup setup = readSetup(line);
    if (mSession != nullptr && !mSession->isOver()) throw std::invalid_argument("frames run already");
    end();
    mSession = std::make_shared<Session>(mHelper, setup, mStreamFd);
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
