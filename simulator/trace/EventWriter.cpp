#include "EventWriter.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <utility>

#include "FieldList.h"
#include "Program.h"
#include "StartThread.h"
#include "Timeline.h"

namespace vel::sim {

namespace {

constexpr size_t kBufferBytes = size_t{1} << 20;
constexpr std::chrono::milliseconds kBatch{20};  // one write takes what comes in that time
constexpr std::chrono::milliseconds kTick{100};
constexpr int kTicksAtEnd = 10;

std::atomic<bool> gAreWanted{false};
std::atomic<Peer> gSelf{Peer::RUN};

// The events that wait to be written.
class Buffer {
  public:
    void add(const std::string& line) {
        bool wasEmpty = false;
        {
            std::lock_guard<std::mutex> lock(mLock);
            if (mText.size() + line.size() >= kBufferBytes) {
                ++mDropped;
                return;
            }
            wasEmpty = mText.empty();
            mText.append(line).push_back('\n');
        }
        if (wasEmpty) mChanged.notify_one();
    }

    // Waits for events and moves them to the text; dropped: how many were lost since the last call. False
    // once it is over and nothing is left.
    bool take(std::string& text, uint64_t& dropped) {
        text.clear();
        std::unique_lock<std::mutex> lock(mLock);
        mChanged.wait(lock, [this] { return mIsOver || !mText.empty(); });
        mChanged.wait_for(lock, kBatch, [this] { return mIsOver; });
        std::swap(text, mText);
        dropped = std::exchange(mDropped, 0);
        return !text.empty();
    }

    void setOver(bool isOver) {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mIsOver = isOver;
        }
        mChanged.notify_one();
    }
    bool isOver() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mIsOver;
    }

  private:
    mutable std::mutex mLock;
    std::condition_variable mChanged;
    std::string mText;      // guarded by mLock
    uint64_t mDropped = 0;  // guarded by mLock
    bool mIsOver = false;   // guarded by mLock
};

// Never destroyed: threads that outlive main() may still log.
Buffer& buffer() {
    static Buffer* const buffer = new Buffer;
    return *buffer;
}

TraceEvent eventNow(char phase, Track track, const char* category, const std::string& name,
                    const JsonObject& args) {
    TraceEvent event;
    event.phase = phase;
    event.category = category;
    event.name = name;
    event.peer = gSelf;
    event.track = track;
    event.timeNs = steadyNowNs();
    event.args = args;
    return event;
}

void addFlow(char phase, Track track, const char* category, const char* name, uint64_t id, int64_t timeNs) {
    if (!events::areWanted()) return;
    TraceEvent event = eventNow(phase, track, category, name, {});
    event.id = id;
    event.timeNs = timeNs;
    buffer().add(event.line());
}

void addAsync(char phase, Track track, const char* category, const std::string& name, uint64_t id,
              const JsonObject& args) {
    if (!events::areWanted()) return;
    TraceEvent event = eventNow(phase, track, category, name, args);
    event.id = id;
    buffer().add(event.line());
}

void addErrorLine(const std::string& text) {
    if (events::areWanted()) events::instant(Track::LOG, "error", "error", JsonObject().add("text", text));
}

}  // namespace

EventWriter::EventWriter(int fd, Peer self) : mFd(fd) {
    if (fd < 0) return;
    // For this process alone, not for what it starts.
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) != 0 || fcntl(fd, F_SETFL, O_WRONLY | O_NONBLOCK) != 0)
        throw std::system_error(errno, std::generic_category(), "no descriptor for the events");
    gSelf = self;
    buffer().setOver(false);
    mThread = startThread("the events", [this] { run(); });
    setErrorListener(addErrorLine);
    gAreWanted = true;
}

EventWriter::~EventWriter() {
    if (!mThread.joinable()) return;
    setErrorListener(nullptr);
    gAreWanted = false;
    buffer().setOver(true);
    mThread.join();
}

void EventWriter::run() {
    std::string text;
    for (uint64_t dropped = 0; buffer().take(text, dropped);) {
        if (dropped > 0) {
            const JsonObject count = JsonObject().add("count", dropped);
            text += eventNow('i', Track::LOG, "error", "events dropped", count).line() + "\n";
        }
        if (write(text)) continue;
        gAreWanted = false;  // the reader is gone
        return;
    }
}

// False when nobody reads, or when the reader hangs at the end.
bool EventWriter::write(const std::string& text) {
    int ticks = 0;
    for (size_t written = 0; written < text.size();) {
        const ssize_t count = ::write(mFd, text.data() + written, text.size() - written);
        if (count > 0) written += static_cast<size_t>(count);
        if (count > 0 || (count < 0 && errno == EINTR)) continue;
        if (count == 0 || errno != EAGAIN) return false;
        pollfd writable{mFd, POLLOUT, 0};
        const bool isStuck = poll(&writable, 1, static_cast<int>(kTick.count())) == 0;
        if (isStuck && buffer().isOver() && ++ticks == kTicksAtEnd) return false;
    }
    return true;
}

namespace events {

bool areWanted() {
    return gAreWanted.load(std::memory_order_relaxed);
}

void slice(Track track, const char* category, const std::string& name, int64_t startNs, int64_t endNs,
           const JsonObject& args) {
    if (!areWanted()) return;
    TraceEvent event = eventNow('X', track, category, name, args);
    event.timeNs = startNs;
    event.endNs = endNs;
    buffer().add(event.line());
}

void instant(Track track, const char* category, const std::string& name, const JsonObject& args) {
    if (areWanted()) buffer().add(eventNow('i', track, category, name, args).line());
}

void counter(const char* category, const std::string& name, const JsonObject& values) {
    if (areWanted()) buffer().add(eventNow('C', Track::FIGURES, category, name, values).line());
}

void asyncBegin(Track track, const char* category, const std::string& name, uint64_t id,
                const JsonObject& args) {
    addAsync('b', track, category, name, id, args);
}

void asyncEnd(Track track, const char* category, const std::string& name, uint64_t id,
              const JsonObject& args) {
    addAsync('e', track, category, name, id, args);
}

void flowStart(Track track, const char* category, const char* name, uint64_t id, int64_t timeNs) {
    addFlow('s', track, category, name, id, timeNs);
}

void flowStep(Track track, const char* category, const char* name, uint64_t id, int64_t timeNs) {
    addFlow('t', track, category, name, id, timeNs);
}

void flowEnd(Track track, const char* category, const char* name, uint64_t id, int64_t timeNs) {
    addFlow('f', track, category, name, id, timeNs);
}

Command::Command(Track track, std::string line)
    : mTrack(track), mLine(std::move(line)), mStartNs(steadyNowNs()) {
    if (areWanted()) mArgs.add("line", mLine);
}

// Named by its verb; what begins with no letter is a command to send.
Command::~Command() {
    if (!areWanted()) return;
    const bool isWord = !mLine.empty() && std::isalpha(static_cast<unsigned char>(mLine.front())) != 0;
    slice(mTrack, "command", isWord ? FieldList::verbOf(mLine) : "send", mStartNs, steadyNowNs(), mArgs);
}

}  // namespace events

}  // namespace vel::sim
