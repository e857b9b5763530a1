#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ParsedEvent.h"

namespace vel::sim {

/**
 * Keeps the events of a session and writes the files that are left of it. Any thread may call.
 *
 * Memory is bounded: of more than kMaxEvents events, or kMaxBytes of their text, the oldest are let go of,
 * except for the newest of each camera.
 */
class SessionRecord {
  public:
    static constexpr size_t kMaxEvents = 500'000;
    static constexpr size_t kMaxPageEvents = 50'000;
    static constexpr size_t kMaxBytes = size_t{64} << 20;

    /** Adds an event's line. False, and it is left out, when it is none. */
    bool add(const std::string& line);

    /**
     * The summary of the session as a JSON object: "durationSeconds", "messages" (a number), "frames" and
     * "captures" (what the camera server told at the end of each, in order, the newest hundred).
     */
    std::string figures() const;

    /**
     * Writes all events with writeTraceFile().
     */
    void writeTrace(const std::string& file) const;
    /**
     * Writes {"format":1,"figures":{..},"events":[..]}, the newest kMaxPageEvents events for pages, and the
     * newest of each camera, in the order in which they came. Throws as writeTraceFile() does.
     */
    void writeSession(const std::string& file) const;

  private:
    struct Entry {
        std::string line;
        bool isForPage = false;
        std::string camera;  // the name of a camera's event
    };

    void noteFigures(const ParsedEvent& event);
    void dropOldest();
    std::vector<std::string> linesForPage() const;

    mutable std::mutex mLock;  // guards all below
    std::deque<Entry> mEntries;
    size_t mBytes = 0;                                // of the lines
    std::map<std::string, std::string> mLostCameras;  // the newest of those let go of, by name
    int64_t mEndNs = 0;                               // of the newest event
    uint64_t mMessages = 0;
    std::deque<std::string> mFrames;    // JSON objects
    std::deque<std::string> mCaptures;  // the same
};

}  // namespace vel::sim
