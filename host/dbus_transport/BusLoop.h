#pragma once

#include <android-base/unique_fd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "BusSession.h"
#include "CallStatus.h"

namespace vel::dbus_transport {

/** An object of another process. Unique bus names start anew with each bus, hence the session. */
struct RemoteObject {
    SessionId session = 0;
    desktop_bus::InterfaceObject object;
};

/** A session and this process's unique name on its bus. */
struct OpenSession {
    SessionId id = 0;
    std::string ownName;
};

/** Hears of deaths, on the loop's thread: it must not block and not wait for a call. */
class BusListener {
  public:
    virtual void onPeerDied(SessionId session, const std::string& busName) = 0;
    /** The connection has ended; every call in flight has failed already. */
    virtual void onSessionEnded(SessionId session) = 0;

  protected:
    ~BusListener() = default;
};

/**
 * The process's one connection to the bus and the thread on which everything about it happens; other threads
 * hand their wishes over. One connection gives the process one unique name, which is its identity; one thread
 * keeps the library's locks out of the way of calls that nest.
 *
 * Never destroyed: its thread runs until the process ends, which waits for nothing.
 */
class BusLoop {
  public:
    using WriteArguments = desktop_bus::AsyncCalls::WriteArguments;
    using ReadReply = std::function<void(sdbus::MethodReply&)>;

    /** The listener is borrowed for good. */
    explicit BusLoop(BusListener& listener);
    BusLoop(const BusLoop&) = delete;
    BusLoop& operator=(const BusLoop&) = delete;

    /**
     * The session in progress, else a new one with the bus at the address; id 0 when that fails (logged) or
     * takes longer than the limit, in which case the attempt goes on for a later call to find. An address
     * that failed is left alone for a while, up to two seconds when it fails again and again: each attempt
     * leaves memory behind in the bus library.
     */
    OpenSession open(const std::string& address, std::chrono::milliseconds limit);

    /**
     * Calls and waits for the outcome, without limit. The functions run on the loop's thread while the caller
     * waits. From any thread but the loop's; no lock is held meanwhile.
     */
    CallStatus call(const RemoteObject& target, const char* interface, const char* method,
                    const WriteArguments& writeArguments, const ReadReply& readReply);
    /**
     * The same with a limit, behind which the status is FAILED. The functions may run later still, so they
     * own what they use.
     */
    CallStatus callWithin(std::chrono::milliseconds limit, const RemoteObject& target, const char* interface,
                          const char* method, const WriteArguments& writeArguments,
                          const ReadReply& readReply);

    /** Runs on the loop's thread if the session still lasts by then. From any thread; does not block. */
    void post(SessionId session, std::function<void(BusSession&)> work);

  private:
    ~BusLoop() = default;  // never run
    enum class State { CLOSED, OPENING, OPEN };
    using Closure = std::function<void()>;

    bool startLocked();
    bool mayTryLocked(const std::string& address) const;
    void enqueue(Closure closure);
    void wake();
    void run();
    void runClosures();
    void processOrWait();
    void openOnLoop(SessionId id, const std::string& address);
    void endSession(const char* reason);
    BusSession* sessionOnLoop(SessionId id);
    void beginOnLoop(const RemoteObject& target, const char* interface, const char* method,
                     const WriteArguments& writeArguments, desktop_bus::AsyncCalls::OnReply onReply);

    BusListener& mListener;
    android::base::unique_fd mWakeUp;  // from the start on

    std::mutex mLock;  // guards the fields below
    bool mIsStarted = false;
    std::condition_variable mStateChanged;
    State mState = State::CLOSED;
    OpenSession mLastSession;
    std::deque<Closure> mClosures;
    std::string mFailedAddress;  // empty when the last attempt was no failure
    std::chrono::steady_clock::time_point mNextAttempt;
    std::chrono::milliseconds mPause{0};  // before it

    std::unique_ptr<BusSession> mSession;  // the loop's thread only
};

}  // namespace vel::dbus_transport
