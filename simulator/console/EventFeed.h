#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vel::sim {

/**
 * The events that every browser gets, in one bounded list that all of them share, as text of server-sent
 * events. Any thread may call. A browser that does not keep up misses events and is told how many; nobody
 * waits for it.
 */
class EventFeed {
  public:
    struct Limits {
        size_t history = 2000;  // events that a new browser gets
        size_t events = 8000;   // that are kept
        size_t bytes = size_t{8} << 20;
    };

    /** How far one browser is. Used by one thread at a time. */
    class Reader;

    EventFeed();
    explicit EventFeed(const Limits& limits) : mLimits(limits) {}

    /**
     * Adds an event, one line of JSON; what holds a line's end is dropped. Of the events that are kept as the
     * same word a new browser gets the newest, however old it is.
     */
    void add(std::string event, const std::string& keptAs = "");
    /** What is sent first, and again when it changes: an object of JSON. */
    void setState(std::string state);
    /** Ends every wait, now and later. */
    void close();

    /** A browser that saw the event of that number last; 0 for none. */
    Reader open(uint64_t lastSeen);
    /**
     * What to send next, which is little at a time and seldom more often than twenty times a second. Waits
     * for it, at most a second: the text is then empty, or a comment when nothing was sent for ten. Nothing
     * once the feed is closed.
     */
    std::optional<std::string> next(Reader& reader);

  private:
    using Clock = std::chrono::steady_clock;
    struct Event {
        uint64_t number = 0;
        std::shared_ptr<const std::string> text;
    };

    uint64_t newest() const { return mFirst + mEvents.size() - 1; }
    bool hasMore(const Reader& reader) const;
    std::string take(Reader& reader) const;
    void skipLost(Reader& reader, std::string& text) const;
    std::vector<Event> keptBetween(uint64_t first, uint64_t end) const;

    const Limits mLimits;
    mutable std::mutex mLock;  // guards what follows
    std::condition_variable mChanged;
    std::condition_variable mClosed;
    bool mIsClosed = false;
    std::string mState;
    uint64_t mStateNumber = 0;
    uint64_t mFirst = 1;  // number of the first of the events
    std::deque<std::shared_ptr<const std::string>> mEvents;
    size_t mBytes = 0;
    std::map<std::string, Event> mKept;
};

class EventFeed::Reader {
  private:
    friend class EventFeed;
    std::deque<Event> mBefore;  // what is sent before the next
    uint64_t mNext = 1;
    uint64_t mState = 0;
    Clock::time_point mSent;  // when something was sent last
};

}  // namespace vel::sim
