// Starts the peers of the library and shows them on a page of its own HTTP server; or shows a session that
// was saved.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <string>

#include "ConsoleServer.h"
#include "ConsoleSession.h"
#include "EventFeed.h"
#include "JsonObject.h"
#include "ParsedEvent.h"
#include "PictureFeed.h"
#include "Program.h"
#include "Replay.h"
#include "TagList.h"

namespace {

using vel::sim::ConsoleServer;
using vel::sim::ConsoleSession;
using vel::sim::EventFeed;

constexpr int kTickMs = 200;

struct Options {
    std::string replay;
    ConsoleServer::Options server;
    ConsoleSession::Options session;
};

// Next to the program in a build tree, else where both are installed.
std::string pageFolder(const std::filesystem::path& programs) {
    if (std::filesystem::exists(programs / "page")) return programs / "page";
    return programs.parent_path() / "share" / VEL_PROJECT_NAME / "console";
}

std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App cli(
        "Starts the desktop service, the camera server and the desktop application on a private bus and "
        "shows what they do on a page, served on the loopback address; prints its address. Ends with Ctrl-C "
        "and leaves no process behind.");
    const std::filesystem::path programs = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    options.session.programs = programs;
    options.session.output = "out";
    options.server.folder = pageFolder(programs);
    cli.add_option("--port", options.server.port, "port of the page (default: any that is free)")
        ->type_name("PORT")
        ->check(CLI::Range(1, 65535));
    cli.add_option("--input", options.session.input,
                   "video or picture that the frames come from, played over and over")
        ->type_name("FILE")
        ->check(CLI::ExistingFile);
    cli.add_option("--replay", options.replay, "show this saved session, without any peer")
        ->type_name("FILE")
        ->excludes("--input");
    cli.add_option("--page", options.server.folder, "folder of the page's files")->type_name("FOLDER");
    cli.add_option("--programs", options.session.programs,
                   "folder of the three programs (default: this program's own)")
        ->type_name("FOLDER");
    return vel::sim::parseArguments(cli, argc, argv);
}

void tell(const ConsoleServer& server) {
    std::printf("console at %s\n", server.address().c_str());
    std::fflush(stdout);
}

int show(const Options& options, const vel::sim::EndSignals& signals) {
    EventFeed events;
    ConsoleSession session(options.session, events);
    session.start();
    const ConsoleServer server(options.server, events, session.pictures(),
                               [&](const std::string& request) { return session.perform(request); });
    tell(server);
    while (!signals.wait(kTickMs))
        session.tick();
    return EXIT_SUCCESS;
}

int replay(const Options& options, const vel::sim::EndSignals& signals) {
    const vel::sim::Replay replay = vel::sim::readReplay(options.replay);
    const size_t count = replay.events.size();
    EventFeed events({count, count, SIZE_MAX});
    for (const std::string& event : replay.events)
        events.add(event);
    events.setState(vel::sim::JsonObject()
                        .add("session", "replay")
                        .add("replay", true)
                        .addJson("figures", replay.figures)
                        .text());
    vel::sim::PictureFeed pictures([](const std::string&) {});
    const ConsoleServer server(options.server, events, pictures, [](const std::string&) {
        return vel::sim::errorAnswer(409, "a saved session is shown: there is nobody to do it");
    });
    tell(server);
    signals.wait();
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const auto code = parse(argc, argv, options)) return *code;
    return vel::sim::runProgram("desktop_console", [&] {
        const vel::sim::EndSignals signals;  // before any thread starts
        options.server.tags = vel::sim::tagList();
        return options.replay.empty() ? show(options, signals) : replay(options, signals);
    });
}
