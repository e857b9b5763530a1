#pragma once

#include <string>
#include <string_view>

#include "FrameView.h"

namespace vel::sim {

/** What the desktop application does to a picture, so that anybody sees that it did. */
enum class Effect {
    None,    // a plain copy
    Tint,    // warmer colours; brightness stays
    Mirror,  // the whole picture again, small and mirrored, in the lower right corner
    Blur,    // about 160 pixels of detail across, whatever the size
};

/**
 * The effect of that name: "none", "tint", "mirror" or "blur". Throws std::invalid_argument, with a line that
 * names the choices, for any other text.
 */
Effect parseEffect(std::string_view name);
std::string effectName(Effect effect);

/**
 * Applies one effect to frames of one size. A frame counter stays readable: frames narrower than 240 pixels,
 * whose cells are too small for it, are not blurred where the counter is. Not thread-safe.
 */
class EffectFilter {
  public:
    /** Throws std::invalid_argument when the size is none. */
    EffectFilter(Effect effect, FrameSize size);

    Effect effect() const { return mEffect; }

    /** Both views must have the filter's size, or std::invalid_argument is thrown, and must not overlap. */
    void apply(const ConstFrameView& source, const FrameView& destination);

  private:
    void applyTint(const ConstFrameView& source, const FrameView& destination) const;
    void applyMirror(const ConstFrameView& source, const FrameView& destination);
    void applyBlur(const ConstFrameView& source, const FrameView& destination);

    const Effect mEffect;
    const FrameSize mSize;
    Frame mSmall;  // the inset before it is mirrored, or the picture without its detail
};

}  // namespace vel::sim
