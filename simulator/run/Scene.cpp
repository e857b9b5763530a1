#include "Scene.h"

#include <cstdio>

namespace vel::sim {

namespace {
constexpr std::chrono::seconds kLimit{10}, kNoTime{0};
}

Expectation message(const std::string& from, const std::string& to, const std::string& text) {
    return {"service", {from + " -> " + to, text}};
}
Expectation reply(const std::string& from, const std::string& to, const std::string& text) {
    return {"service", {from + " => " + to, text}};
}
Expectation camera(const std::string& text) {
    return {"camera_server", {text}};
}
Expectation app(const std::string& text) {
    return {"app", {text}};
}

std::vector<std::string> play(const Scene& scene, Recorder& recorder,
                              const std::function<bool(const std::string&, const std::string&)>& send) {
    std::vector<std::string> missing;
    for (const Step& step : scene) {
        const size_t mark = step.command.empty() ? 0 : recorder.mark();
        std::printf("\n-- %s\n", step.title.c_str());
        if (!step.command.empty() && !send(step.actor, step.command)) {
            missing.push_back(step.actor + " takes no more commands, at: " + step.title);
            return missing;
        }
        for (const Expectation& expectation : step.expectations) {
            // Behind a miss the others are only looked for, so that all that is missing is named.
            if (recorder.waitFor(expectation, mark, missing.empty() ? kLimit : kNoTime)) continue;
            if (recorder.isInterrupted()) break;
            missing.push_back(expectation.text());
        }
        recorder.print();
        if (!missing.empty() || recorder.isInterrupted()) return missing;
    }
    return missing;
}

}  // namespace vel::sim
