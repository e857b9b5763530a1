#include "LogCapture.h"

#include <android/log.h>

#include <algorithm>
#include <mutex>

namespace {

std::mutex gLinesLock;
std::vector<LogCapture::Line> gLines;

void store(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> lock(gLinesLock);
    gLines.push_back({data->priority, data->tag ? data->tag : "", message});
}

}  // namespace

LogCapture::LogCapture() {
    clear();
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);  // the host default drops debug lines
    __android_log_set_logger(store);
}

LogCapture::~LogCapture() {
    __android_log_set_logger(__android_log_stderr_logger);
    __android_log_set_minimum_priority(ANDROID_LOG_DEFAULT);
}

std::vector<LogCapture::Line> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(gLinesLock);
    return gLines;
}

std::vector<std::string> LogCapture::texts(const std::string& tag) const {
    static const char kLetters[] = "??VDIWEF";
    std::vector<std::string> result;
    for (const Line& line : lines()) {
        if (tag.empty() || line.tag == tag)
            result.push_back(std::string(1, kLetters[line.priority & 7]) + " " + line.text);
    }
    return result;
}

size_t LogCapture::count(const std::string& part) const {
    const std::vector<Line> all = lines();
    return std::count_if(all.begin(), all.end(),
                         [&](const Line& line) { return line.text.find(part) != std::string::npos; });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(gLinesLock);
    gLines.clear();
}
