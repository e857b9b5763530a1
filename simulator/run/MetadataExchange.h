#pragma once

#include "Scene.h"

namespace vel::sim {

/**
 * Sets filters, captures three seconds of camera 0 while the application changes the metadata of some
 * captures, and expects every change to have been taken.
 */
Scene metadataExchange();

/** What of its messages to print, so that the frames do not bury the rest: one request and one result. */
void printFewCaptures(Recorder& recorder);

}  // namespace vel::sim
