#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "JsonObject.h"
#include "TraceEvent.h"
#include "Tracks.h"

namespace vel::sim {

/**
 * Writes this process's events to a descriptor, a line each, on a thread of its own. At most one at a time in
 * a process, created behind EndSignals. While there is none, or it has no
 * descriptor, the functions of vel::sim::events do nothing.
 */
class EventWriter {
  public:
    /**
     * fd: the write end of a pipe, which becomes this object's; negative when nobody wants events. Error
     * lines that the program prints become events as well. Throws std::system_error when the descriptor is
     * none, or without a thread.
     */
    EventWriter(int fd, Peer self);
    /** Writes what is left, for which a reader that hangs has a second. */
    ~EventWriter();
    EventWriter(const EventWriter&) = delete;
    EventWriter& operator=(const EventWriter&) = delete;

  private:
    void run();
    bool write(const std::string& text);

    const android::base::unique_fd mFd;
    std::thread mThread;
};

/**
 * Events of this process. Any thread may call, at any time, also while the process ends. No call waits for
 * the reader: what does not fit into a megabyte is dropped, and an event tells how many were. Times are of
 * the steady clock, in ns. Ask areWanted() before the arguments cost anything.
 */
namespace events {

/** Whether anybody reads them. */
bool areWanted();

void slice(Track track, const char* category, const std::string& name, int64_t startNs, int64_t endNs,
           const JsonObject& args);
/** Happens now. */
void instant(Track track, const char* category, const std::string& name, const JsonObject& args);
/** The values of a chart from now on. */
void counter(const char* category, const std::string& name, const JsonObject& values);
/** Begin, now, and end of something that may overlap others. The id is unique in the session, below 2^53. */
void asyncBegin(Track track, const char* category, const std::string& name, uint64_t id,
                const JsonObject& args);
void asyncEnd(Track track, const char* category, const std::string& name, uint64_t id,
              const JsonObject& args);
/** An arrow from a slice through others to another one; the time lies within the track's slice. */
void flowStart(Track track, const char* category, const char* name, uint64_t id, int64_t timeNs);
void flowStep(Track track, const char* category, const char* name, uint64_t id, int64_t timeNs);
void flowEnd(Track track, const char* category, const char* name, uint64_t id, int64_t timeNs);

/** A line of a program's input that is carried out: a slice as long as this object lives. */
class Command {
  public:
    Command(Track track, std::string line);
    ~Command();
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    /** What is told beside the line. */
    JsonObject& args() { return mArgs; }

  private:
    const Track mTrack;
    const std::string mLine;
    const int64_t mStartNs;
    JsonObject mArgs;
};

}  // namespace events

}  // namespace vel::sim
