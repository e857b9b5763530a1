#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vel::sim {

/** What is waited for: a line of one program that holds all of the parts. */
struct Expectation {
    std::string source;
    std::vector<std::string> parts;

    bool isMetBy(const std::string& lineSource, const std::string& line) const;
    std::string text() const;
};

/**
 * Merges the output of the programs into one timeline and waits for expected lines. Any thread may call it.
 */
class Recorder {
  public:
    /** Adds a line of a program. It brings its own time stamp. */
    void add(const std::string& source, const std::string& line);

    /**
     * From now on print() shows of the lines that meet the pattern only that number; all are waited for
     * as before. A line that meets several patterns counts for the one that was given first.
     */
    void printOnlyFirst(const Expectation& pattern, size_t count);
    /** Forgets these patterns. */
    void printAll();

    /**
     * Prints the lines that came since the last print, in the order of their times. When they cannot be
     * written, that interrupts.
     */
    void print();

    /**
     * Waits for a line that came at or behind the mark and meets the expectation. False when the limit passes
     * or interrupt() is called first. A long wait prints the lines that come meanwhile.
     */
    bool waitFor(const Expectation& expectation, size_t mark, std::chrono::milliseconds limit);

    /** The first line that came at or behind the mark and meets the expectation. */
    std::optional<std::string> find(const Expectation& expectation, size_t mark) const;

    /** The newest line of a program, without its stamp; empty when there is none. */
    std::string newest(const std::string& source) const;

    /** A mark behind the lines that came so far. */
    size_t mark() const;

    /** Ends every wait, now and later. */
    void interrupt();
    bool isInterrupted() const;

  private:
    struct Entry {
        std::string source;
        std::string line;
        std::chrono::steady_clock::time_point arrival;
    };

    struct Quota {
        Expectation pattern;
        size_t left;
    };

    void printLinesBefore(std::chrono::steady_clock::time_point end);
    bool takeFromQuota(const Entry& entry);
    bool isMetSince(const Expectation& expectation, size_t mark) const;

    mutable std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<Entry> mEntries;  // guarded by mLock
    std::vector<Quota> mQuotas;   // guarded by mLock
    size_t mPrinted = 0;          // guarded by mLock; how many entries were printed
    bool mInterrupted = false;    // guarded by mLock
};

}  // namespace vel::sim
