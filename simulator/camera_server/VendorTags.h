#pragma once

class VelChiDesktopHelper;

namespace vel::sim {

/** Makes the sensor's vendor tags known to the metadata library and to the helper. Before captures flow. */
void installVendorTags(VelChiDesktopHelper& helper);

}  // namespace vel::sim
