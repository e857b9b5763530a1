#pragma once

#include <cstdint>
#include <string>

/** A command on its way, as the trace knows it. */
struct TracedCommand {
    std::string from;
    std::string to;
    uint64_t id = 0;
};

/**
 * What the service tells of each thing that happens: an event for whoever reads events, and, when enabled,
 * one flushed line of output,
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

    /** Whether anybody wants to know of commands. */
    bool wantsCommands() const;

    void ready(const std::string& name) const;
    /** What reply() or error() is to be given for it. */
    TracedCommand command(const std::string& from, const std::string& to, const std::string& text) const;
    void reply(const TracedCommand& command, const std::string& text) const;
    void error(const TracedCommand& command, const std::string& text) const;
    void event(const std::string& text) const;

  private:
    void print(const std::string& head, const std::string& text) const;
    void end(const TracedCommand& command, const char* what, const std::string& text) const;

    const bool mEnabled;
};
