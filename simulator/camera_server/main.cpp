// The camera server: loads the library as a camera HAL does, and answers for the camera service.

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <string>

#include "CameraServer.h"
#include "CameraWatch.h"
#include "EventWriter.h"
#include "FrameFiles.h"
#include "FrameSensor.h"
#include "JsonMessage.h"
#include "JsonUtils.h"
#include "PictureTap.h"
#include "Program.h"
#include "ServiceClient.h"
#include "TaskQueue.h"
#include "VelChiDesktopHelper.h"
#include "VendorTags.h"

using android::JsonMessage;

namespace {

using android::JsonUtils;
using vel::sim::CameraServer;
using vel::sim::FrameSensor;
using vel::sim::PictureTap;
using vel::sim::ServiceClient;
using vel::sim::TaskQueue;
using vel::sim::Track;

constexpr char kCommands[] =
    "Commands, one a line; CAMERA is a framework id:\n"
    "  open CAMERA, close CAMERA, status CAMERA\n"
    "  capture CAMERA FRAMES FRAMES_PER_SECOND\n"
    "      exchanges the metadata of each frame with the application, until the camera is\n"
    "      closed at the latest\n"
    "  frames CAMERA [size=1920x1080] [streams=1] [fps=30] [count=0]\n"
    "         [input=FILE] [output=FILE] [sheet=FILE] [loop=0]\n"
    "      streams frames once the application has configured them; count=0 has no end but\n"
    "      frames end; with loop=1 the input is played at its own rate, over and over\n"
    "  frames end, frames end-node\n"
    "  pictures STREAM[,STREAM...], pictures none\n"
    "      sends small pictures of these streams to the descriptor of --pictures\n"
    "  help";

// The framework id in a request to restart a session, or INVALID_CAMERA_ID when the text is none.
uint32_t restartRequestedFor(const std::string& command) {
    JsonMessage message;
    const rapidjson::Value* request = nullptr;
    std::string idText;
    if (!message.parse(command) ||
        JsonUtils::parseValue(message.root(), "restartNeeded", &request, -1) != 0 ||
        JsonUtils::parseValue(*request, "cameraId", idText, -1) != 0) {
        return VelChiDesktopHelper::INVALID_CAMERA_ID;
    }
    return static_cast<uint32_t>(std::strtoul(idText.c_str(), nullptr, 10));
}

struct Options {
    vel::sim::CommonOptions common;
    int videoFd = -1;
    int picturesFd = -1;
};

std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App cli(
        "The camera server. Loads the desktop helper as a camera HAL does, does what it reads from standard "
        "input, and answers the library's restart requests by opening the camera again. Ends with its "
        "input or by a signal.");
    cli.footer(kCommands);
    cli.add_option("--video-fd", options.videoFd,
                   "descriptor of the YUV4MPEG2 stream that input=- stands for")
        ->type_name("FD");
    cli.add_option("--pictures", options.picturesFd, "descriptor of a socket that takes pictures as packets")
        ->type_name("FD");
    vel::sim::addCommonOptions(cli, options.common);
    return vel::sim::parseArguments(cli, argc, argv);
}

// Feeds the queues with the lines of standard input; its end, or a signal, is the program's.
void readInput(vel::sim::EndSignals& signals, TaskQueue& cameraTasks, TaskQueue& frameTasks,
               CameraServer& server, FrameSensor& sensor, PictureTap& pictures) {
    for (std::string line; signals.readLine(line);) {
        if (line.empty() || vel::sim::answerHelp(line, kCommands)) continue;
        if (PictureTap::isCommand(line)) {
            pictures.execute(line);
        } else if (FrameSensor::isCommand(line)) {
            frameTasks.post([&, line] {
                const vel::sim::events::Command traced(Track::FRAME_COMMANDS, line);
                sensor.execute(line);
            });
        } else {
            cameraTasks.post([&, line] {
                const vel::sim::events::Command traced(Track::COMMANDS, line);
                server.execute(line);
            });
        }
    }
    cameraTasks.finish();
}

// As the camera service, to the library.
std::string answer(const std::string& command, TaskQueue& tasks, CameraServer& server) {
    vel::sim::printLine("received %s", command.c_str());
    const uint32_t fwkId = restartRequestedFor(command);
    if (fwkId == VelChiDesktopHelper::INVALID_CAMERA_ID) return "UNKNOWN";
    // The restart runs on the HAL's thread, not within the request.
    tasks.post([&server, fwkId] { server.restartSession(fwkId); });
    return "OK_CAMERA_SERVICE";
}

int serve(const Options& options) {
    vel::sim::EndSignals signals;  // before any thread starts
    vel::sim::endSoonAfter(signals, vel::sim::OutputFile::removeUnfinished);
    const vel::sim::EventWriter events(options.common.eventsFd, vel::sim::Peer::CAMERA_SERVER);
    vel::sim::tellLibraryLog();

    TaskQueue cameraTasks;
    VelChiDesktopHelper* const helper = VelChiDesktopHelper::getInstance();
    vel::sim::installVendorTags(*helper);
    vel::sim::CameraWatch watch(helper);
    CameraServer server(helper, watch);
    PictureTap pictures(options.picturesFd);
    FrameSensor sensor(helper);
    sensor.setStream(options.videoFd);
    sensor.setPictures(&pictures);
    ServiceClient cameraService(
        ServiceClient::ClientType::CLIENT_CAMERA_SERVICE,
        [&](const std::string& command) { return answer(command, cameraTasks, server); },
        vel::sim::printLinkOf(options.common));

    // Frame commands have a thread of their own: the end of frames waits for a peer that hangs.
    vel::sim::TaskThread frameCommands("the frame commands");
    vel::sim::TaskThread input("the input");
    const vel::sim::EndSignalWatcher watcher(signals, [&] {
        cameraTasks.cancel();
        frameCommands.tasks().cancel();
        server.stop();
        sensor.abort();
    });
    input.tasks().post(
        [&] { readInput(signals, cameraTasks, frameCommands.tasks(), server, sensor, pictures); });
    cameraTasks.run();
    input.finish();
    frameCommands.finish();
    server.finish();
    sensor.end();
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const auto code = parse(argc, argv, options)) return *code;
    return vel::sim::runProgram("camera_server", [&] {
        vel::sim::applyCommonOptions(options.common);
        return serve(options);
    });
}
