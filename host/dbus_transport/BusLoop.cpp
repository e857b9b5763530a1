#include "BusLoop.h"

#include <android/log.h>
#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>

#include "DesktopBusNames.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;

namespace {

// Between attempts to reach a bus that cannot be reached.
constexpr std::chrono::milliseconds kShortestPause{50};
constexpr std::chrono::milliseconds kLongestPause{2000};

// A call that a thread waits for.
class WaitedCall {
  public:
    void finish(CallStatus status) {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mStatus = std::move(status);
            mDone = true;
        }
        mFinished.notify_one();  // without the lock, for which the woken thread would wait once more
    }

    CallStatus wait() {
        std::unique_lock<std::mutex> lock(mLock);
        mFinished.wait(lock, [this] { return mDone; });
        return mStatus;
    }

    CallStatus waitFor(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mLock);
        if (mFinished.wait_for(lock, limit, [this] { return mDone; })) return mStatus;
        return {CallStatus::FAILED, "the peer does not answer"};
    }

  private:
    std::mutex mLock;
    std::condition_variable mFinished;
    bool mDone = false;
    CallStatus mStatus;
};

CallStatus outcome(sdbus::MethodReply* reply, const sdbus::Error* error,
                   const BusLoop::ReadReply& readReply) {
    if (error != nullptr) return CallStatus::of(*error);
    try {
        readReply(*reply);
        return {};
    } catch (const std::exception& exception) {
        return {CallStatus::FAILED, exception.what()};
    }
}

}  // namespace

BusLoop::BusLoop(BusListener& listener) : mListener(listener) {}

bool BusLoop::startLocked() try {
    if (mIsStarted) return true;
    if (mWakeUp < 0) mWakeUp.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (mWakeUp < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    std::thread([this] { run(); }).detach();
    return mIsStarted = true;
} catch (const std::system_error& error) {
    __android_log_print(ANDROID_LOG_ERROR, bus::kLogTag, "The bus cannot be used: %s", error.what());
    return false;
}

bool BusLoop::mayTryLocked(const std::string& address) const {
    return address != mFailedAddress || std::chrono::steady_clock::now() >= mNextAttempt;
}

OpenSession BusLoop::open(const std::string& address, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mLock);
    if (!startLocked()) return {};
    if (mState == State::CLOSED && mayTryLocked(address)) {
        mState = State::OPENING;
        mClosures.push_back([this, id = ++mLastSession.id, address] { openOnLoop(id, address); });
        wake();
    }
    if (!mStateChanged.wait_for(lock, limit, [this] { return mState != State::OPENING; })) {
        __android_log_print(ANDROID_LOG_WARN, bus::kLogTag, "The bus at %s does not answer", address.c_str());
    }
    return mState == State::OPEN ? mLastSession : OpenSession();
}

CallStatus BusLoop::call(const RemoteObject& target, const char* interface, const char* method,
                         const WriteArguments& writeArguments, const ReadReply& readReply) {
    const auto waited = std::make_shared<WaitedCall>();
    enqueue([&, waited] {
        beginOnLoop(target, interface, method, writeArguments,
                    [&readReply, waited](sdbus::MethodReply* reply, const sdbus::Error* error) {
                        waited->finish(outcome(reply, error, readReply));
                    });
    });
    return waited->wait();
}

CallStatus BusLoop::callWithin(std::chrono::milliseconds limit, const RemoteObject& target,
                               const char* interface, const char* method,
                               const WriteArguments& writeArguments, const ReadReply& readReply) {
    const auto waited = std::make_shared<WaitedCall>();
    enqueue([=] {
        beginOnLoop(target, interface, method, writeArguments,
                    [readReply, waited](sdbus::MethodReply* reply, const sdbus::Error* error) {
                        waited->finish(outcome(reply, error, readReply));
                    });
    });
    return waited->waitFor(limit);
}

void BusLoop::beginOnLoop(const RemoteObject& target, const char* interface, const char* method,
                          const WriteArguments& writeArguments, bus::AsyncCalls::OnReply onReply) {
    if (BusSession* const session = sessionOnLoop(target.session)) {
        session->calls().begin(target.object, interface, method, writeArguments, std::move(onReply));
        return;
    }
    const sdbus::Error ended(bus::kErrorNoReply, "the connection to the bus has ended");
    onReply(nullptr, &ended);
}

void BusLoop::post(SessionId session, std::function<void(BusSession&)> work) {
    enqueue([this, session, work = std::move(work)] {
        if (BusSession* current = sessionOnLoop(session)) work(*current);
    });
}

void BusLoop::enqueue(Closure closure) {
    bool isFirst;
    {
        std::lock_guard<std::mutex> lock(mLock);
        isFirst = mClosures.empty();
        mClosures.push_back(std::move(closure));
    }
    if (isFirst) wake();  // whoever put the first one there wakes for all
}

void BusLoop::wake() {
    eventfd_write(mWakeUp.get(), 1);
}

void BusLoop::run() {
    for (;;) {
        runClosures();
        processOrWait();
    }
}

void BusLoop::runClosures() {
    eventfd_t ignored;
    (void)eventfd_read(mWakeUp.get(), &ignored);
    std::deque<Closure> closures;
    {
        std::lock_guard<std::mutex> lock(mLock);
        closures.swap(mClosures);
    }
    for (const Closure& closure : closures) {
        try {
            closure();
        } catch (const std::exception& exception) {
            __android_log_print(ANDROID_LOG_ERROR, bus::kLogTag, "Bus work failed: %s", exception.what());
        }
    }
}

void BusLoop::processOrWait() {
    if (!mSession) {
        pollfd wakeUp{mWakeUp.get(), POLLIN, 0};
        (void)poll(&wakeUp, 1, -1);
        return;
    }
    try {
        mSession->processOrWait(mWakeUp.get());
    } catch (const std::exception& exception) {
        endSession(exception.what());
    }
}

void BusLoop::openOnLoop(SessionId id, const std::string& address) {
    try {
        mSession = std::make_unique<BusSession>(
            id, address, [this, id](const std::string& busName) { mListener.onPeerDied(id, busName); });
    } catch (const std::exception& exception) {
        __android_log_print(ANDROID_LOG_WARN, bus::kLogTag, "Cannot reach the bus at %s: %s", address.c_str(),
                            exception.what());
    }
    std::lock_guard<std::mutex> lock(mLock);
    mPause = mSession ? std::chrono::milliseconds(0) : std::clamp(2 * mPause, kShortestPause, kLongestPause);
    mFailedAddress = mSession ? "" : address;
    mNextAttempt = std::chrono::steady_clock::now() + mPause;
    mState = mSession ? State::OPEN : State::CLOSED;
    if (mSession) mLastSession.ownName = mSession->uniqueName();
    mStateChanged.notify_all();
}

void BusLoop::endSession(const char* reason) {
    __android_log_print(ANDROID_LOG_WARN, bus::kLogTag, "The connection to the bus has ended: %s", reason);
    const SessionId id = mSession->id();
    {
        std::lock_guard<std::mutex> lock(mLock);
        mState = State::CLOSED;
    }
    mSession.reset();
    mListener.onSessionEnded(id);
}

BusSession* BusLoop::sessionOnLoop(SessionId id) {
    return mSession && mSession->id() == id ? mSession.get() : nullptr;
}

}  // namespace vel::dbus_transport
