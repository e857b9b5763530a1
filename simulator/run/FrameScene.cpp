#include "FrameScene.h"

#include <cstdio>
#include <optional>
#include <stdexcept>

#include "FieldList.h"
#include "Scene.h"

namespace vel::sim {

namespace {

constexpr char kReady[] = "frames of ";
constexpr char kEnded[] = "frames ended: ";
constexpr char kWell[] = "well";
constexpr std::chrono::milliseconds kTick{100};
constexpr std::chrono::seconds kEndLimit{10};

std::string cameraCommand(const FrameOptions& options) {
    std::string command = "frames 0 sheet=out/contact-sheet.png";
    command += options.input.empty() ? " size=1920x1080 streams=2 fps=30 count=120"
                                     : " input=" + FieldList::quoted(options.input);
    if (!options.output.empty()) command += " output=" + FieldList::quoted(options.output);
    return command;
}

// What stands in the line behind the text.
std::string behind(const std::string& line, const std::string& text) {
    return line.substr(line.find(text) + text.size());
}

// The application's command once the camera server has said the size of its frames.
std::string appCommand(const FrameOptions& options, const std::string& readyLine) {
    const std::string rest = behind(readyLine, kReady);
    return "frames size=" + rest.substr(0, rest.find(' ')) + " effect=" + options.effect;
}

}  // namespace

void FrameOptions::check() const {
    for (const std::string& file : {input, output}) {
        if (file.find('\n') != std::string::npos)
            throw std::invalid_argument("a file's name must not hold a newline");
    }
}

std::string playFrames(const FrameOptions& options, Recorder& recorder,
                       const std::function<bool(const std::string&, const std::string&)>& send,
                       const std::function<bool()>& isAlive) {
    std::printf("\n-- frames go to the application and come back as their replacements\n");
    const size_t mark = recorder.mark();
    bool isConfigured = false;
    std::optional<std::string> ended;
    if (!send("camera_server", cameraCommand(options))) return "the camera server takes no commands";
    for (bool alive = true; alive && !ended && !recorder.isInterrupted(); alive = isAlive()) {
        (void)recorder.waitFor(camera("frames"), recorder.mark(), kTick);
        recorder.print();
        if (const auto refusal = recorder.find(app("error "), mark)) return behind(*refusal, "error ");
        if (const auto refusal = recorder.find(camera("error "), mark)) return behind(*refusal, "error ");
        const auto ready = isConfigured ? std::nullopt : recorder.find(camera(kReady), mark);
        if (ready) isConfigured = send("app", appCommand(options, *ready));
        ended = recorder.find(camera(kEnded), mark);
    }
    if (recorder.isInterrupted()) return "interrupted";
    if (!ended) ended = recorder.find(camera(kEnded), mark);
    if (!ended) return "the camera server ended";
    if (isConfigured && send("app", "frames end")) (void)recorder.waitFor(app(kEnded), mark, kEndLimit);
    recorder.print();
    const std::string outcome = behind(*ended, kEnded);
    return outcome == kWell ? "" : outcome;
}

}  // namespace vel::sim
