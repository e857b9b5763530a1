#pragma once

#include "Scene.h"

namespace vel::sim {

/** All three peers are at the service. */
Scene registration();

/** Open framework camera 0, switch it to camera 2, ask, close, and open it again at its default. */
Scene cameraSwitch();

}  // namespace vel::sim
