#pragma once

#include <cstdint>
#include <string>

// The service's output: one flushed line for each thing that happens,
//
//   [   12.345 ms] <who> <what> <rest>
//
// where <what> is "->" for a message and "=>" for its answer, each followed by the receiver and the text, or
// a word such as "registered", "died", "ready". Fields are separated by blanks; only <rest> may contain some.
class Trace {
  public:
    // Times are counted from the origin, in nanoseconds of the steady clock. Disabled, only ready() prints.
    Trace(bool enabled, int64_t originNs) : mEnabled(enabled), mOriginNs(originNs) {}

    bool enabled() const { return mEnabled; }

    void ready(const std::string& name) const { print("SERVICE ready " + name); }
    void message(const std::string& from, const std::string& to, const std::string& text) const;
    void reply(const std::string& from, const std::string& to, const std::string& text) const;
    void error(const std::string& from, const std::string& to, const std::string& text) const;
    void event(const std::string& text) const;

  private:
    void print(const std::string& line) const;

    const bool mEnabled;
    const int64_t mOriginNs;
};
