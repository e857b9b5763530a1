#pragma once

#include <cstdint>

#include "CallMeter.h"
#include "ServiceClient.h"

class VelChiDesktopHelper;
class VelImgSubHelper;

namespace vel::chaos {

// The framework's camera in desktop mode, and what the library opens in its place.
constexpr uint32_t kDesktopCamera = 0, kDesktopOverride = 4;

/** The library, and who measures the calls into it. */
struct Library {
    VelChiDesktopHelper& helper;
    CallMeter& meter;
};

// What a camera HAL does with the library, in small turns. attempt() makes one and returns when (steady
// clock, ns) what succeeded in it had begun, or 0. Each object belongs to one thread.

/** A capture of the desktop camera whose metadata the application changes: a command out and its answer. */
class Capture {
  public:
    explicit Capture(const Library& library) : mLibrary(library) {}
    int64_t attempt();

  private:
    const Library mLibrary;
};

/** A question to the library from the camera service, through the desktop service: a command in. */
class Question {
  public:
    Question();
    int64_t attempt();

  private:
    sim::ServiceClient mCameraService;
};

/** A frame on the application frame path. */
class PreviewFrame {
  public:
    explicit PreviewFrame(const Library& library) : mLibrary(library) {}
    int64_t attempt();

  private:
    const Library mLibrary;
    bool mIsConnected = false;
};

/** A frame of a substituted stream: it succeeds with a replacement that was not seen before. */
class SubstitutedFrame {
  public:
    SubstitutedFrame(const Library& library, uint32_t stream) : mLibrary(library), mStream(stream) {}
    int64_t attempt();

  private:
    bool send(VelImgSubHelper& substitution);
    int64_t acquire(VelImgSubHelper& substitution);

    const Library mLibrary;
    const uint32_t mStream;
    uint32_t mCounter = 0;
    int64_t mNewestNs = 0;  // capture time of the newest replacement
};

/** Open, switch, queries and close of a camera that is not in desktop mode: none of it may wait for a peer.
 */
class Registry {
  public:
    explicit Registry(const Library& library) : mLibrary(library) {}
    int64_t attempt();

  private:
    uint32_t open();
    void query(uint32_t cameraId);

    const Library mLibrary;
    uint32_t mRequired = 0;
};

}  // namespace vel::chaos
