#pragma once

#include <android/hidl/base/1.0/IBase.h>

#include <string>
#include <vector>

#include "BusLoop.h"
#include "DeathLinks.h"
#include "ObjectExporter.h"
#include "ProducerChannels.h"
#include "WorkerPool.h"

namespace vel::dbus_transport {

/**
 * What the interfaces of this process need to reach other processes and be reached by them: the loop, the
 * workers, the objects exported and the deaths watched. One a process, never destroyed. Any thread.
 */
class DesktopTransport final : private BusListener {
  public:
    using IBase = android::hidl::base::V1_0::IBase;
    using Kind = ObjectExporter::Kind;

    static DesktopTransport& instance();

    BusLoop& loop() { return mLoop; }

    /** As BusLoop::open(), for a few seconds at most. */
    OpenSession open(const std::string& address);

    /** The owner of a bus name; the status is DEAD when it has none. Waits for a few seconds at most. */
    CallStatus getNameOwner(SessionId session, const std::string& name, std::string* owner);

    /**
     * A reference to a local object, for a call to the peer that will hold it; null for null. It must be
     * taken back when the call fails.
     */
    desktop_bus::InterfaceObject lend(const RemoteObject& peer, const OpenSession& session, Kind kind,
                                      const android::sp<IBase>& object);
    void takeBack(const RemoteObject& peer, const desktop_bus::InterfaceObject& reference);

    /**
     * A reference of this process to an object that a third process has told it of. When the object is gone
     * there is none, and giving it back has no effect.
     */
    void acquire(const RemoteObject& object);
    /** From any thread; does not block. */
    void giveBack(const RemoteObject& object);

    /** The local object behind a path of this process, null when it has none such. */
    android::sp<IBase> findLocal(SessionId session, Kind kind, const std::string& path) const {
        return mExporter.find(session, kind, path);
    }

    /**
     * Has the links notified of the peer's death on a worker, at once when it is dead already. Blocks until
     * the bus has answered, for a few seconds at most.
     */
    void watch(const RemoteObject& peer, DeathWatch::Watcher watcher);

  private:
    DesktopTransport() = default;
    ~DesktopTransport() = default;  // never run

    void onPeerDied(SessionId session, const std::string& busName) override;
    void onSessionEnded(SessionId session) override;
    void notifyLater(std::vector<DeathWatch::Watcher> watchers);
    void discard(SessionId session, std::vector<ObjectExporter::Dropped> dropped);

    void publish(SessionId session, Kind kind, const std::string& path);
    void addReferenceMethods(sdbus::IObject& object, SessionId session, Kind kind, const std::string& path);
    void addCallbackMethods(sdbus::IObject& object, BusSession& session, const std::string& path);
    void addProducerMethods(sdbus::IObject& object, SessionId session, const std::string& path);
    void onCommand(BusSession& session, const std::string& path, sdbus::MethodCall& call);

    WorkerPool& mWorkers = *new WorkerPool;
    ObjectExporter mExporter;
    DeathWatch mDeathWatch;
    ProducerChannels mChannels{mWorkers};
    BusLoop& mLoop = *new BusLoop(*this);  // its thread uses the others
};

}  // namespace vel::dbus_transport
