#include "FrameView.h"

#include <libyuv.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace vel::sim {
namespace {

FrameSize checkedSize(FrameSize size) {
    if (isFrameSize(size)) return size;
    throw std::invalid_argument("no frame size: " + std::to_string(size.width) + "x" +
                                std::to_string(size.height));
}

}  // namespace

template <typename Sample>
BasicFrameView<Sample>::BasicFrameView(Sample* block, FrameSize size)
    : mBlock(block), mSize(checkedSize(size)) {
    if (block == nullptr) throw std::invalid_argument("a frame view needs a block");
    const int halfWidth = size.width / 2;
    const int halfHeight = size.height / 2;
    Sample* const u = block + static_cast<ptrdiff_t>(size.width) * size.height;
    Sample* const v = u + static_cast<ptrdiff_t>(halfWidth) * halfHeight;
    mPlanes = {{{block, size.width, size.width, size.height},
                {u, halfWidth, halfWidth, halfHeight},
                {v, halfWidth, halfWidth, halfHeight}}};
}

template class BasicFrameView<uint8_t>;
template class BasicFrameView<const uint8_t>;

Frame::Frame(FrameSize size) : mBlock(frameBytes(checkedSize(size))), mView(mBlock.data(), size) {}

void copyPlane(const Plane<const uint8_t>& source, const Plane<uint8_t>& destination) {
    libyuv::CopyPlane(source.data, source.stride, destination.data, destination.stride, source.width,
                      source.height);
}

void scalePlane(const Plane<const uint8_t>& source, const Plane<uint8_t>& destination) {
    libyuv::ScalePlane(source.data, source.stride, source.width, source.height, destination.data,
                       destination.stride, destination.width, destination.height, libyuv::kFilterBox);
}

void copyFrame(const ConstFrameView& source, const FrameView& destination) {
    if (source.size() == destination.size()) {
        std::memcpy(destination.block(), source.block(), source.bytes());
        return;
    }
    for (size_t i = 0; i < source.planes().size(); ++i)
        scalePlane(source.planes()[i], destination.planes()[i]);
}

}  // namespace vel::sim
