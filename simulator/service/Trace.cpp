#include "Trace.h"

#include "EventWriter.h"
#include "Program.h"
#include "Timeline.h"

using vel::sim::JsonObject;
using vel::sim::Track;
namespace events = vel::sim::events;

namespace {

std::string nameOf(const TracedCommand& command) {
    return command.from + " -> " + command.to;
}

JsonObject peersOf(const TracedCommand& command) {
    return JsonObject().add("from", command.from).add("to", command.to);
}

// "HAL registered", whatever stands behind it.
std::string firstWords(const std::string& text) {
    return text.substr(0, text.find(' ', text.find(' ') + 1));
}

}  // namespace

bool Trace::wantsCommands() const {
    return mEnabled || events::areWanted();
}

void Trace::ready(const std::string& name) const {
    vel::sim::printStamped("SERVICE ready " + name);
}

TracedCommand Trace::command(const std::string& from, const std::string& to, const std::string& text) const {
    // The time as the id: unique also behind a service that has died.
    TracedCommand command{from, to,
                          static_cast<uint64_t>(vel::sim::steadyNowNs() - vel::sim::timeOriginNs())};
    print(nameOf(command) + "   ", text);
    events::asyncBegin(Track::MESSAGES, "message", nameOf(command), command.id,
                       peersOf(command).add("text", text));
    return command;
}

void Trace::reply(const TracedCommand& command, const std::string& text) const {
    end(command, "reply", text);
}

void Trace::error(const TracedCommand& command, const std::string& text) const {
    end(command, "error", text);
}

void Trace::end(const TracedCommand& command, const char* what, const std::string& text) const {
    if (!wantsCommands()) return;
    print(command.to + " => " + command.from + "   " + what + " ", text);
    events::asyncEnd(Track::MESSAGES, "message", nameOf(command), command.id,
                     peersOf(command).add(what, text));
}

void Trace::event(const std::string& text) const {
    print("", text);
    if (events::areWanted())
        events::instant(Track::PEERS, "peer", firstWords(text), JsonObject().add("text", text));
}

void Trace::print(const std::string& head, const std::string& text) const {
    if (mEnabled) vel::sim::printStamped(head + vel::sim::printable(text));
}
