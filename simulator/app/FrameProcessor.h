#pragma once

#include <memory>
#include <string>

#include "ServiceClient.h"

namespace vel::sim {

class Preview;
class Substitution;
struct FrameConfiguration;

/**
 * The application's side of the frames: owns the queues that the camera HAL fills, processes each frame of
 * image substitution and sends it back as its replacement. Prints what happens.
 *
 * execute() and the destructor from one thread. Frames are processed on a thread of its own; the preview is
 * taken on the thread that delivers it.
 */
class FrameProcessor {
  public:
    explicit FrameProcessor(ServiceClient& client);
    /** Ends a substitution that runs. */
    ~FrameProcessor();

    /** True for lines that execute() understands: those that begin with the word frames or effect. */
    static bool isCommand(const std::string& line);

    /**
     * "frames size=1920x1080 [effect=tint] [buffers=16] [hold=N]" configures image substitution, in place of
     * an earlier one, and processes frames from then on; with hold it keeps every frame of either queue
     * after that many. "frames end" ends it. "effect mirror" is another effect from the next frame on. False,
     * said in an error line, when it cannot be done.
     */
    bool execute(const std::string& line);

  private:
    void changeEffect(const std::string& line);
    bool start(const std::string& line);
    void configureHal(const FrameConfiguration& configuration);
    void end();

    ServiceClient& mClient;
    android::sp<Preview> mPreview;
    std::unique_ptr<Substitution> mSubstitution;
};

}  // namespace vel::sim
