#pragma once

#include <string>
#include <vector>

/**
 * Collects what is written to the Android log while it lives; at most one may live at a time.
 * Lines of every priority are collected, debug included. Threads may log while it collects.
 */
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /**
     * The lines so far, oldest first, as "<priority letter> <text>", for example "E Invalid camera id 16";
     * optionally of one tag only. The log cuts a text at 1023 bytes.
     */
    std::vector<std::string> texts(const std::string& tag = "") const;
    /** How many lines so far hold the given text. */
    size_t count(const std::string& part) const;
    void clear();
};
