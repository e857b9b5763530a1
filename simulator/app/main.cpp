// The desktop application: sends commands to the camera HAL, and prints and answers what it receives.

#include <CLI/CLI.hpp>
#include <atomic>
#include <cctype>
#include <map>
#include <string>
#include <vector>

#include "CaptureAnswers.h"
#include "EventWriter.h"
#include "FrameProcessor.h"
#include "Program.h"
#include "ServiceClient.h"

namespace {

using vel::sim::CaptureAnswers;
using vel::sim::FrameProcessor;
using vel::sim::ServiceClient;
using ClientType = ServiceClient::ClientType;

constexpr std::chrono::seconds kServiceLimit{10};
constexpr std::chrono::milliseconds kTick{50};

const std::map<std::string, ClientType> kPeers = {{"hal", ClientType::CLIENT_CAMERA_HAL},
                                                  {"camera-service", ClientType::CLIENT_CAMERA_SERVICE},
                                                  {"app", ClientType::CLIENT_APP}};

constexpr char kInputLines[] =
    "Lines of standard input:\n"
    "  {...}\n"
    "      a JSON command to send; what begins with no letter is sent as it stands\n"
    "  frames size=WIDTHxHEIGHT [effect=tint|mirror|blur|none] [buffers=16] [hold=N]\n"
    "      configures image substitution and processes its frames; with hold it keeps those\n"
    "      after that number\n"
    "  frames end\n"
    "  effect tint|mirror|blur|none\n"
    "      from the next frame on\n"
    "  answer {...}\n"
    "      answers every capture by these tags from then on; answer {} by nothing\n"
    "  help";

struct Options {
    vel::sim::CommonOptions common;
    ClientType to = ClientType::CLIENT_CAMERA_HAL;
    std::vector<std::string> commands;
    std::string reply = "OK_APP";
    std::vector<std::string> talkBack;
    bool changeMetadata = false;
    bool stay = false;
    bool quiet = false;
};

// Sends one command, prints its reply and notes it; false when it could not be delivered.
bool sendAndPrint(ServiceClient& client, const Options& options, const std::string& command,
                  vel::sim::events::Command& traced) {
    const ServiceClient::Reply reply = client.send(options.to, command);
    vel::sim::printLine("%s %s", reply.ok ? "reply" : "error", reply.text.c_str());
    traced.args().add("reply", reply.text);
    return reply.ok;
}

std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App cli(
        "The desktop application. Registers with the desktop service, sends the given commands, and "
        "prints the replies and what it receives. Without commands it stays until a signal comes.");
    cli.footer(kInputLines);
    cli.add_option("command", options.commands, "JSON commands to send, in order; - reads standard input")
        ->type_name("COMMAND");
    cli.add_option_function<std::string>(
           "--to", [&options](const std::string& peer) { options.to = kPeers.at(peer); },
           "who gets them: hal (default), camera-service or app")
        ->type_name("PEER")
        ->check(CLI::IsMember(kPeers));
    cli.add_option("--reply", options.reply,
                   "what to answer to a received command (default OK_APP); capture metadata is answered by "
                   "nothing");
    cli.add_flag("--change-metadata", options.changeMetadata,
                 "answer capture metadata by changes to some of the captures");
    cli.add_option("--talk-back", options.talkBack,
                   "a command to send while answering a received one, before the answer; may be repeated");
    cli.add_flag("--stay", options.stay, "stay registered after the commands until a signal comes");
    cli.add_flag("--quiet", options.quiet, "do not print what is received");
    vel::sim::addCommonOptions(cli, options.common);
    return vel::sim::parseArguments(cli, argc, argv);
}

// False when the service does not appear, or a signal comes first.
bool waitForService(ServiceClient& client, const vel::sim::EndSignals& signals) {
    const auto limit = std::chrono::steady_clock::now() + kServiceLimit;
    while (!client.waitUntilConnected(kTick)) {
        if (signals.arrived()) return false;
        if (std::chrono::steady_clock::now() < limit) continue;
        vel::sim::printLine("error the desktop service did not appear");
        return false;
    }
    return true;
}

// Carries out a line of standard input; false when that cannot be done.
bool execute(const std::string& line, ServiceClient& client, FrameProcessor& frames, CaptureAnswers& answers,
             const Options& options, vel::sim::events::Command& traced) {
    if (vel::sim::answerHelp(line, kInputLines)) return true;
    if (CaptureAnswers::isCommand(line)) return answers.execute(line);
    if (FrameProcessor::isCommand(line)) return frames.execute(line);
    // A word is a mistake of whoever types; broken JSON is sent, as the HAL may be asked to cope with it.
    if (std::isalpha(static_cast<unsigned char>(line.front())) == 0)
        return sendAndPrint(client, options, line, traced);
    vel::sim::refuseLine(line);
    return false;
}

bool sendAll(ServiceClient& client, FrameProcessor& frames, CaptureAnswers& answers, const Options& options,
             vel::sim::EndSignals& signals) {
    bool allSent = true;
    const auto carryOut = [&](const std::string& line, bool isInput) {
        vel::sim::events::Command traced(vel::sim::Track::COMMANDS, line);
        const bool isWell = isInput ? execute(line, client, frames, answers, options, traced)
                                    : sendAndPrint(client, options, line, traced);
        traced.args().add("ok", isWell);
        allSent = isWell && allSent;
    };
    for (const std::string& command : options.commands) {
        if (command != "-") {
            carryOut(command, false);
            continue;
        }
        for (std::string line; signals.readLine(line);) {
            if (!line.empty()) carryOut(line, true);
        }
    }
    return allSent;
}

int run(const Options& options) {
    vel::sim::EndSignals signals;  // before any thread starts, so that all of them leave the signals alone
    vel::sim::endSoonAfter(signals);
    const vel::sim::EventWriter events(options.common.eventsFd, vel::sim::Peer::APP);

    CaptureAnswers answers(options.changeMetadata);
    std::atomic<ServiceClient*> link{nullptr};
    ServiceClient client(
        ClientType::CLIENT_APP,
        [&](const std::string& command) {
            if (!options.quiet) vel::sim::printLine("received %s", command.c_str());
            for (const std::string& text : options.talkBack) {
                if (ServiceClient* target = link.load()) (void)target->send(options.to, text);
            }
            const auto capture = vel::sim::captureIn(command);
            return capture ? answers.to(*capture) : options.reply;
        },
        vel::sim::printLinkOf(options.common));
    link = &client;

    if (!waitForService(client, signals)) return 1;
    FrameProcessor frames(client);
    const bool allSent = sendAll(client, frames, answers, options, signals);
    if (options.stay || options.commands.empty()) signals.wait();
    return allSent ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const auto code = parse(argc, argv, options)) return *code;
    return vel::sim::runProgram("desktop_app", [&] {
        vel::sim::applyCommonOptions(options.common);
        return run(options);
    });
}
