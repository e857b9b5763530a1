#include "LogCapture.h"

#include <android/log.h>

#include <algorithm>
#include <mutex>

namespace {

struct Line {
    std::string tag;
    std::string text;
};

std::mutex gLinesLock;
std::vector<Line> gLines;

// Debian's log gives the text beside the rest, a device's gives it within; its header decides which of the
// two is meant.
template <typename Data>
void store(const Data* data, const char* message) {
    static const char kLetters[] = "??VDIWEF";
    const std::string text = std::string(1, kLetters[data->priority & 7]) + " " + message;
    std::lock_guard<std::mutex> lock(gLinesLock);
    gLines.push_back({data->tag != nullptr ? data->tag : "", text});
}

template <typename Message>
void store(const Message* message) {
    store(message, message->message);
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

std::vector<std::string> LogCapture::texts(const std::string& tag) const {
    std::lock_guard<std::mutex> lock(gLinesLock);
    std::vector<std::string> result;
    for (const Line& line : gLines) {
        if (tag.empty() || line.tag == tag) result.push_back(line.text);
    }
    return result;
}

size_t LogCapture::count(const std::string& part) const {
    const std::vector<std::string> all = texts();
    return std::count_if(all.begin(), all.end(),
                         [&](const std::string& text) { return text.find(part) != std::string::npos; });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(gLinesLock);
    gLines.clear();
}
