#pragma once

#include <string>
#include <vector>

// Collects what is written to the Android log while it lives; at most one may live at a time.
// Lines of every priority are collected, debug included. Threads may log while it collects.
class LogCapture {
  public:
    struct Line {
        int priority;  // android_LogPriority
        std::string tag;
        std::string text;  // cut at 1023 bytes, as the log does
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // What was logged so far, oldest first.
    std::vector<Line> lines() const;
    // The lines as "<priority letter> <text>", for example "E Invalid camera id 16", optionally of one tag
    // only.
    std::vector<std::string> texts(const std::string& tag = "") const;
    // How many lines so far hold the given text.
    size_t count(const std::string& part) const;
    void clear();
};
