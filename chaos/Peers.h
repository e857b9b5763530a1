#pragma once

#include <csignal>
#include <memory>
#include <string>

#include "ChildProcess.h"
#include "FrameView.h"
#include "PrivateBus.h"

namespace vel::chaos {

// Of the substituted streams.
constexpr sim::FrameSize kFrameSize{64, 48};

/**
 * The desktop service and the application as children, on a bus of their own, which this process is told of
 * in its environment. One thread, which must live as long as they should. What cannot be done within half a
 * minute is thrown as std::runtime_error.
 */
class Peers {
  public:
    Peers();

    void killService();
    void startService();
    void killApp();
    void startApp();
    void killBoth();
    void startBoth();
    void killBus();
    /** Starts the bus and the service anew; the application finds them by itself. */
    void startBus();

    void stopService() { mService->kill(SIGSTOP); }
    void continueService() { mService->kill(SIGCONT); }
    void stopApp() { mApp->kill(SIGSTOP); }
    void continueApp() { mApp->kill(SIGCONT); }
    void stopBus() { mBus.suspend(); }
    void continueBus() { mBus.resume(); }

    /** Has the application open its camera, name its tags and configure its frames, as soon as it can. */
    void configureApp();

    /** The name of a program that has ended although nobody killed it; empty when all run. */
    std::string endedByItself();

  private:
    sim::PrivateBus mBus;
    std::unique_ptr<sim::ChildProcess> mService;
    std::unique_ptr<sim::ChildProcess> mApp;
};

}  // namespace vel::chaos
