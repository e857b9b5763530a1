#pragma once

#include "Scene.h"

namespace vel::sim {

/**
 * The camera server opens a camera and captures while there is no service, which then appears; the line
 * "start" for the actor "service" is to start it. All three peers are at the service in the end.
 */
Scene lateService();

/** All three peers are at the service. */
Scene registration();

/** Open framework camera 0, switch it to camera 2, ask, close, and open it again at its default. */
Scene cameraSwitch();

/**
 * Sets filters, captures three seconds of camera 0 while the application changes the metadata of some
 * captures, and expects every change to have been taken.
 */
Scene metadataExchange();

/**
 * Two streams of frames, each through the application: the camera is switched while they flow, they end and
 * begin at another size, and go on without replacements when the substitution node ends. output: a file for
 * the first frames' replacements; empty for none.
 */
Scene liveFrames(const std::string& effect, const std::string& output);

/** What of the messages of captures to print, so that the frames do not bury the rest: one request and one
 * result. */
void printFewCaptures(Recorder& recorder);

}  // namespace vel::sim
