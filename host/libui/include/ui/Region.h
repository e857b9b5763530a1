#pragma once

namespace android {

/** A set of rectangles. Damage is not tracked on a workstation, so a region holds nothing. */
class Region {};

}  // namespace android
