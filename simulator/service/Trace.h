#pragma once

#include <string>

#include "Program.h"
#include "Timeline.h"

/**
 * The service's output: one flushed line for each thing that happens,
 *
 *   [   12.345 ms] <who> <what> <rest>
 *
 * where <what> is "->" for a message and "=>" for its answer, each followed by the receiver and the text, or
 * a word such as "registered", "died", "ready". Fields are separated by blanks; only <rest> may contain some.
 */
class Trace {
  public:
    /** Disabled, only ready() prints. */
    explicit Trace(bool enabled) : mEnabled(enabled) {}

    bool enabled() const { return mEnabled; }

    void ready(const std::string& name) const { vel::sim::printStamped("SERVICE ready " + name); }
    void message(const std::string& from, const std::string& to, const std::string& text) const {
        print(from + " -> " + to + "   ", text);
    }
    void reply(const std::string& from, const std::string& to, const std::string& text) const {
        print(from + " => " + to + "   reply ", text);
    }
    void error(const std::string& from, const std::string& to, const std::string& text) const {
        print(from + " => " + to + "   error ", text);
    }
    void event(const std::string& text) const { print("", text); }

  private:
    void print(const std::string& head, const std::string& text) const {
        if (mEnabled) vel::sim::printStamped(head + vel::sim::printable(text));
    }

    const bool mEnabled;
};
