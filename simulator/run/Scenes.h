#pragma once

#include "Scene.h"

namespace vel::sim {

/** All three peers are at the service. */
Scene registration();

/** Open framework camera 0, switch it to camera 2, ask, close, and open it again at its default. */
Scene cameraSwitch();

/**
 * Sets filters, captures three seconds of camera 0 while the application changes the metadata of some
 * captures, and expects every change to have been taken.
 */
Scene metadataExchange();

/** What of its messages to print, so that the frames do not bury the rest: one request and one result. */
void printFewCaptures(Recorder& recorder);

}  // namespace vel::sim
