#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace vel::sim {

struct FrameSize {
    int width = 0;
    int height = 0;

    bool operator==(const FrameSize& other) const { return width == other.width && height == other.height; }
    bool operator!=(const FrameSize& other) const { return !(*this == other); }
};

constexpr int kMaxFrameSide = 8192;

/** Both sides from 2 to kMaxFrameSide pixels. */
constexpr bool isFrameSize(FrameSize size) {
    return size.width >= 2 && size.width <= kMaxFrameSide && size.height >= 2 && size.height <= kMaxFrameSide;
}

/** The bytes of a frame's block: 1.5 for each pixel, truncated. Only for a size that isFrameSize() admits. */
constexpr size_t frameBytes(FrameSize size) {
    return static_cast<size_t>(size.width) * static_cast<size_t>(size.height) * 3 / 2;
}

/** A rectangle of samples in somebody else's memory. */
template <typename Sample>
struct Plane {
    Sample* data = nullptr;
    int stride = 0;
    int width = 0;
    int height = 0;

    Sample* row(int y) const { return data + static_cast<ptrdiff_t>(y) * stride; }
    /** The rectangle must lie inside the plane. */
    Plane part(int x, int y, int partWidth, int partHeight) const {
        return {row(y) + x, stride, partWidth, partHeight};
    }
    operator Plane<const Sample>() const { return {data, stride, width, height}; }
};

/**
 * A planar 4:2:0 frame in one contiguous block of frameBytes() bytes that somebody else owns: the luma plane,
 * then the two chroma planes, without padding between rows.
 *
 * The chroma planes are half as wide and high as the picture, rounded down, so a frame of odd size fits its
 * block too: its last column or row has no chroma of its own, and the block's last bytes are unused. (Common
 * I420 rounds up, which needs more than 1.5 bytes a pixel; files of odd size are therefore refused, see
 * Y4mReader.) For even sizes the layout is I420.
 */
template <typename Sample>
class BasicFrameView {
  public:
    BasicFrameView() = default;
    /**
     * The block must hold frameBytes(size) bytes; any alignment will do. Throws std::invalid_argument when
     * the block is null or the size is none.
     */
    BasicFrameView(Sample* block, FrameSize size);
    /** A view that may write is one that may read. */
    template <typename Other, typename = std::enable_if_t<std::is_same_v<const Other, Sample>>>
    BasicFrameView(const BasicFrameView<Other>& other)
        : mBlock(other.block()), mSize(other.size()), mPlanes{other.y(), other.u(), other.v()} {}

    Sample* block() const { return mBlock; }
    FrameSize size() const { return mSize; }
    size_t bytes() const { return frameBytes(mSize); }

    const Plane<Sample>& y() const { return mPlanes[0]; }
    const Plane<Sample>& u() const { return mPlanes[1]; }
    const Plane<Sample>& v() const { return mPlanes[2]; }
    /** Luma, U, V. */
    const std::array<Plane<Sample>, 3>& planes() const { return mPlanes; }

  private:
    Sample* mBlock = nullptr;
    FrameSize mSize;
    std::array<Plane<Sample>, 3> mPlanes{};
};

using FrameView = BasicFrameView<uint8_t>;
using ConstFrameView = BasicFrameView<const uint8_t>;
extern template class BasicFrameView<uint8_t>;
extern template class BasicFrameView<const uint8_t>;

/** A frame that owns its block; all zero (green) at first. */
class Frame {
  public:
    /** Throws std::invalid_argument when the size is none. */
    explicit Frame(FrameSize size);
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;
    Frame(Frame&&) = default;
    Frame& operator=(Frame&&) = default;

    FrameView view() { return mView; }
    ConstFrameView view() const { return mView; }
    FrameSize size() const { return mView.size(); }

  private:
    std::vector<uint8_t> mBlock;
    FrameView mView;
};

void copyPlane(const Plane<const uint8_t>& source, const Plane<uint8_t>& destination);
/** Fits the source into the destination's size, averaging when it shrinks and interpolating when it grows. */
void scalePlane(const Plane<const uint8_t>& source, const Plane<uint8_t>& destination);

/** Copies the picture, scaled when the sizes differ. The two must not overlap. */
void copyFrame(const ConstFrameView& source, const FrameView& destination);

}  // namespace vel::sim
