#include "Timeline.h"

#include <chrono>
#include <cstdio>

namespace vel::sim {

int64_t steadyNowNs() {
    using namespace std::chrono;
    return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string timelineStamp(int64_t nowNs, int64_t originNs) {
    char stamp[48];
    std::snprintf(stamp, sizeof(stamp), "[%9.3f ms] ", static_cast<double>(nowNs - originNs) / 1e6);
    return stamp;
}

std::string printable(const std::string& text, size_t maxBytes) {
    std::string line;
    for (size_t i = 0; i < text.size() && i < maxBytes; ++i) {
        const unsigned char byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x20 && byte < 0x7f) {
            line += text[i];
            continue;
        }
        char escape[8];
        std::snprintf(escape, sizeof(escape), "\\x%02x", byte);
        line += escape;
    }
    if (text.size() > maxBytes) line += " ... (" + std::to_string(text.size()) + " bytes)";
    return line;
}

}  // namespace vel::sim
