#pragma once

#include <korvanta/hardware/camera/desktop/2.0/ICameraDesktop.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "Program.h"

namespace vel::sim {

/**
 * A peer's link to the desktop service: registers a callback under a client type and keeps it registered when
 * the service dies and comes back. Any thread may call it.
 */
class ServiceClient {
  public:
    using ClientType = korvanta::hardware::camera::desktop::V2_0::ClientType;
    using ICameraDesktop = korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;

    // Answers a command that arrived for this peer; runs on the transport's threads, several at a time.
    using Handler = std::function<std::string(const std::string& command)>;
    // Told when the link is there (true) and when it is lost (false); runs on threads of the link's own.
    using StateListener = std::function<void(bool connected)>;

    struct Reply {
        bool ok = false;
        std::string text;  // the peer's reply, or what went wrong
    };

    /** Starts to look for the service, on a thread of its own. */
    ServiceClient(ClientType self, Handler handler, StateListener listener);
    /** Stops looking; waits for a look-up that is under way. */
    ~ServiceClient();
    ServiceClient(const ServiceClient&) = delete;
    ServiceClient& operator=(const ServiceClient&) = delete;

    /** Waits until the callback is registered; false when the limit passes first. */
    bool waitUntilConnected(std::chrono::milliseconds limit);

    /** Sends a command to a peer and waits for its reply, without a limit. */
    Reply send(ClientType to, const std::string& command);

    /** The service, or null while it is away. */
    android::sp<ICameraDesktop> service() const;

  private:
    class Callback;

    void keepConnected();
    bool tryConnect();
    void onServiceDied();

    const ClientType mSelf;
    const StateListener mListener;
    android::sp<Callback> mCallback;

    mutable std::mutex mLock;
    std::condition_variable mChanged;
    android::sp<ICameraDesktop> mService;  // guarded by mLock
    bool mDied = false;                    // guarded by mLock; a death since the last look-up
    bool mStopping = false;                // guarded by mLock
    std::thread mKeeper;                   // last: it uses the members above
};

/**
 * What a program does when its link changes: prints "registered" or "service lost" and tells it as an event.
 * Unless the options told where printed times begin, they count from the start of the service from then on;
 * asks it, for at most a second.
 */
ServiceClient::StateListener printLinkOf(const CommonOptions& options);

}  // namespace vel::sim
