// What the simulator's programs read: videos, the lines of their input, the messages of their peers.

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "CaptureAnswers.h"
#include "FrameConfiguration.h"
#include "FrameSetup.h"
#include "FuzzTarget.h"
#include "Y4mReader.h"

namespace {

using namespace vel::sim;

void readVideo(const std::string& video, size_t chunk) {
    size_t at = 0;
    const auto read = [&](void* to, size_t count) {
        const size_t given = std::min({count, chunk + 1, video.size() - at});
        std::memcpy(to, video.data() + at, given);
        at += given;
        return given;
    };
    try {
        Y4mReader reader("video", read);
        const FrameSize size = reader.size();
        require(size.width > 0 && size.height > 0 && size.width % 2 == 0 && size.height % 2 == 0);
        if (frameBytes(size) > 1 << 20) return;
        std::vector<uint8_t> frame(frameBytes(size));
        while (reader.readFrame(FrameView(frame.data(), size))) {
        }
        require(at == video.size());
    } catch (const std::runtime_error& error) {
        require(std::string(error.what()).find('\n') == std::string::npos);
    }
}

template <typename Read>
void readLine(Read read, const std::string& line) {
    try {
        (void)read(line);
    } catch (const std::invalid_argument&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes input(data, size);
    const size_t kind = input.next<uint8_t>();
    const std::string text = input.rest();
    readVideo(text, kind);
    readLine(readFrameSetup, text);
    readLine(readFrameConfiguration, text);
    if (const auto capture = captureIn(text)) (void)changesOf(*capture);
    const auto rowBytes = acceptedRowBytes(text);
    require(!rowBytes || *rowBytes > 0);
    return 0;
}
