#pragma once

#include <android/hidl/base/1.0/IBase.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "BusSession.h"

namespace vel::dbus_transport {

/**
 * The local objects that other processes hold references to. An object has one path for as long as any
 * process holds it; whoever accepted a reference gives it back once, or dies. Any thread.
 *
 * A path belongs to a session: another bus knows none of them.
 */
class ObjectExporter {
  public:
    using IBase = android::hidl::base::V1_0::IBase;
    enum class Kind { CALLBACK, PRODUCER };

    /**
     * What nobody holds any longer: the path is to be taken off the bus, the object let go where its
     * destructor may do as it likes.
     */
    struct Dropped {
        std::string path;
        android::sp<IBase> object;
    };

    /**
     * Adds a reference by the holder, a unique bus name, and returns the object's path. A path that is new is
     * handed to publish first, under the lock: no one may send a path that is not on its way to the bus.
     */
    std::string hold(SessionId session, const std::string& holder, Kind kind,
                     const android::sp<IBase>& object,
                     const std::function<void(const std::string& path)>& publish);
    /** Adds a reference to an object that is exported already; false when there is none at the path. */
    bool holdAgain(SessionId session, const std::string& holder, const std::string& path);
    bool isHeldBy(SessionId session, const std::string& holder, const std::string& path) const;
    /** Takes one reference back; a holder without any is ignored. */
    std::vector<Dropped> release(SessionId session, const std::string& holder, const std::string& path);
    /** Takes back every reference of a holder, or of a session. */
    std::vector<Dropped> releaseHolder(SessionId session, const std::string& holder);
    std::vector<Dropped> releaseSession(SessionId session);

    /** The object at a path, null when there is none of the kind. */
    android::sp<IBase> find(SessionId session, Kind kind, const std::string& path) const;

  private:
    struct Entry {
        SessionId session;
        Kind kind;
        android::sp<IBase> object;
        std::map<std::string, size_t> references;  // by holder
    };
    using Entries = std::map<std::string, Entry>;  // by path

    static void dropIfUnheld(Entries& entries, Entries::iterator& entry, std::vector<Dropped>& dropped);

    mutable std::mutex mLock;  // guards the fields below
    Entries mEntries;
    uint64_t mNextNumber = 1;
};

}  // namespace vel::dbus_transport
