#pragma once

namespace android {

/** Brightness and colours of high-dynamic-range frames: not carried on a workstation. */
struct HdrMetadata {};

}  // namespace android
