#include "Effects.h"

#include <libyuv.h>

#include <algorithm>
#include <stdexcept>

#include "Drawing.h"
#include "FrameCounter.h"

namespace vel::sim {
namespace {

struct NamedEffect {
    const char* name;
    Effect effect;
};

constexpr NamedEffect kEffects[] = {
    {"none", Effect::None}, {"tint", Effect::Tint}, {"mirror", Effect::Mirror}, {"blur", Effect::Blur}};

constexpr int kTintU = -28;
constexpr int kTintV = 28;
constexpr int kInsetParts = 3;       // the inset is a third as wide and high as the picture
constexpr int kBlurredDetail = 160;  // pixels across
constexpr int kMinWidthToBlurCounter = 240;

FrameSize smallSize(Effect effect, FrameSize size) {
    if (!isFrameSize(size)) return size;  // for the frame to refuse
    const int factor = effect == Effect::Mirror ? kInsetParts : std::max(2, size.width / kBlurredDetail);
    return {std::max(2, size.width / factor / 2 * 2), std::max(2, size.height / factor / 2 * 2)};
}

void shiftPlane(const Plane<const uint8_t>& source, const Plane<uint8_t>& destination, int shift) {
    for (int y = 0; y < source.height; ++y) {
        const uint8_t* const from = source.row(y);
        uint8_t* const to = destination.row(y);
        for (int x = 0; x < source.width; ++x)
            to[x] = static_cast<uint8_t>(std::clamp(from[x] + shift, 0, 255));
    }
}

}  // namespace

Effect parseEffect(std::string_view name) {
    for (const NamedEffect& known : kEffects) {
        if (name == known.name) return known.effect;
    }
    throw std::invalid_argument("unknown effect '" + std::string(name) +
                                "': choose none, tint, mirror or blur");
}

std::string effectName(Effect effect) {
    return kEffects[static_cast<size_t>(effect)].name;
}

EffectFilter::EffectFilter(Effect effect, FrameSize size)
    : mEffect(effect), mSize(size), mSmall(smallSize(effect, size)) {}

void EffectFilter::apply(const ConstFrameView& source, const FrameView& destination) {
    if (source.size() != mSize || destination.size() != mSize)
        throw std::invalid_argument("the frame has another size than the effect was made for");
    switch (mEffect) {
        case Effect::None:
            return copyFrame(source, destination);
        case Effect::Tint:
            return applyTint(source, destination);
        case Effect::Mirror:
            return applyMirror(source, destination);
        case Effect::Blur:
            return applyBlur(source, destination);
    }
}

void EffectFilter::applyTint(const ConstFrameView& source, const FrameView& destination) const {
    copyPlane(source.y(), destination.y());
    shiftPlane(source.u(), destination.u(), kTintU);
    shiftPlane(source.v(), destination.v(), kTintV);
}

void EffectFilter::applyMirror(const ConstFrameView& source, const FrameView& destination) {
    copyFrame(source, destination);
    copyFrame(source, mSmall.view());
    const FrameSize inset = mSmall.size();
    const int border = mSize.width / 160 * 2;
    const int left = std::max(0, (mSize.width - inset.width - 3 * border) / 2 * 2);
    const int top = std::max(0, (mSize.height - inset.height - 3 * border) / 2 * 2);
    fillArea(destination, {left - border, top - border, inset.width + 2 * border, inset.height + 2 * border},
             kWhite);
    for (size_t i = 0; i < destination.planes().size(); ++i) {
        const Plane<uint8_t> small = mSmall.view().planes()[i];
        const int scale = i == 0 ? 1 : 2;
        const Plane<uint8_t> place =
            destination.planes()[i].part(left / scale, top / scale, small.width, small.height);
        libyuv::MirrorPlane(small.data, small.stride, place.data, place.stride, small.width, small.height);
    }
}

void EffectFilter::applyBlur(const ConstFrameView& source, const FrameView& destination) {
    copyFrame(source, mSmall.view());
    copyFrame(mSmall.view(), destination);
    if (mSize.width >= kMinWidthToBlurCounter) return;
    const int strip = counterStripHeight(mSize);
    copyPlane(source.y().part(0, 0, mSize.width, strip), destination.y());
}

}  // namespace vel::sim
