#include "FrameScene.h"

#include <cstdio>
#include <optional>

#include "FieldList.h"
#include "Scene.h"

namespace vel::sim {

namespace {

// With the end of the stamp before them: a file's name or a decoder's complaint may hold the same words.
constexpr char kReady[] = "] frames of ";
constexpr char kEnded[] = "] frames ended: ";
constexpr char kError[] = "] error ";
constexpr char kWell[] = "well";
constexpr char kWaitsForInput[] = "waiting for input";
constexpr std::chrono::milliseconds kTick{100};

std::string cameraCommand(const FrameOptions& options) {
    std::string command = "frames 0 sheet=out/contact-sheet.png input=" + FieldList::quoted(options.input);
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

// Whether the camera server says anything new.
class Progress {
  public:
    Progress(const Recorder& recorder, int patienceSeconds)
        : mRecorder(recorder), mPatience(patienceSeconds) {}

    // isExcused: it waits for what is no peer.
    bool hasStopped(bool isExcused) {
        const std::string line = mRecorder.newest("camera_server");
        const auto now = std::chrono::steady_clock::now();
        if (line != mLine || isExcused || line.find(kWaitsForInput) != std::string::npos) mSince = now;
        mLine = line;
        return now - mSince > mPatience;
    }

  private:
    const Recorder& mRecorder;
    const std::chrono::seconds mPatience;
    std::string mLine;
    std::chrono::steady_clock::time_point mSince = std::chrono::steady_clock::now();
};

}  // namespace

std::string playFrames(const FrameOptions& options, Recorder& recorder,
                       const std::function<bool(const std::string&, const std::string&)>& send,
                       const std::function<bool()>& isAlive) {
    std::printf("\n-- frames go to the application and come back as their replacements\n");
    const size_t mark = recorder.mark();
    bool isConfigured = false;
    std::optional<std::string> ended;
    Progress progress(recorder, options.patience);
    if (!send("camera_server", cameraCommand(options))) return "the camera server takes no commands";
    for (bool alive = true; alive && !ended && !recorder.isInterrupted(); alive = isAlive()) {
        (void)recorder.waitFor(camera("frames"), recorder.mark(), kTick);
        recorder.print();
        ended = recorder.find(camera(kEnded), mark);
        if (ended) break;
        for (const char* peer : {"camera_server", "app"}) {
            if (const auto refusal = recorder.find({peer, {kError}}, mark)) return behind(*refusal, kError);
        }
        const auto ready = isConfigured ? std::nullopt : recorder.find(camera(kReady), mark);
        if (ready) isConfigured = send("app", appCommand(options, *ready));
        if (progress.hasStopped(!isConfigured && options.input == "-")) return "the frames make no progress";
    }
    if (recorder.isInterrupted()) return "interrupted";
    if (!ended) ended = recorder.find(camera(kEnded), mark);
    if (!ended) return "the camera server ended";
    const std::string outcome = behind(*ended, kEnded);
    return outcome == kWell ? "" : outcome;
}

}  // namespace vel::sim
