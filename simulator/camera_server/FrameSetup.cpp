#include "FrameSetup.h"

#include <cstdint>
#include <stdexcept>

#include "FieldList.h"

namespace vel::sim {

namespace {
constexpr int kMaxStreams = 4;
constexpr int kMaxFps = 1000;
}  // namespace

FrameSetup readFrameSetup(const std::string& line) {
    FieldList fields(line);
    FrameSetup setup;
    (void)fields.pair("size", setup.size.width, setup.size.height);
    if (!isFrameSize(setup.size)) throw std::invalid_argument("no such frame size");
    setup.streams = fields.number("streams", setup.streams, 1, kMaxStreams);
    setup.fps = fields.number("fps", setup.fps, 1, kMaxFps);
    setup.count = fields.number("count", setup.count, 0, INT32_MAX);
    setup.input = fields.text("input");
    setup.isLooped = fields.number("loop", 0, 0, 1) == 1;
    setup.output = fields.text("output");
    setup.sheet = fields.text("sheet");
    const std::string& camera = fields.word(1);
    if (camera.empty() || camera.find_first_not_of("0123456789") != std::string::npos)
        throw std::invalid_argument("frames need a camera, as in frames 0");
    fields.rejectOthers(2);
    if (setup.isLooped && (setup.input.empty() || setup.input == "-"))
        throw std::invalid_argument("loop needs a file as the input");
    if (setup.output == "-") throw std::invalid_argument("frames cannot be written to standard output");
    if (!setup.input.empty()) setup.streams = 1;
    return setup;
}

}  // namespace vel::sim
