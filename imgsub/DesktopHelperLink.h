#pragma once

#include <cstdint>

#include <utils/StrongPointer.h>  // after <cstdint>, which it needs

namespace android::hardware::graphics::bufferqueue::V1_0 {
struct IGraphicBufferProducer;
}

class VelChiDesktopHelper;

/** What image substitution asks of the desktop helper, which lies above it and implements these functions. */
namespace desktop_helper_link {

/**
 * The instance, also while its constructor still runs, when a peer's command can already arrive and
 * VelChiDesktopHelper::getInstance() would wait for that constructor. Built when it does not exist yet.
 */
VelChiDesktopHelper* instance();

/**
 * The surface that the service holds for image substitution, as VelChiDesktopHelper::getSurface() gives it.
 * Takes the helper's service lock and waits for the service.
 */
android::sp<android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer> fetchImgSubSurface(
    VelChiDesktopHelper& helper);

}  // namespace desktop_helper_link
