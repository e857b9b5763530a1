#include "ObjectExporter.h"

#include <algorithm>

namespace vel::dbus_transport {

using android::sp;

namespace {

std::string newPath(ObjectExporter::Kind kind, uint64_t number) {
    const char* const place = kind == ObjectExporter::Kind::CALLBACK ? "callback" : "producer";
    return std::string("/korvanta/hardware/camera/desktop/") + place + "/" + std::to_string(number);
}

}  // namespace

std::string ObjectExporter::hold(SessionId session, const std::string& holder, Kind kind,
                                 const sp<IBase>& object,
                                 const std::function<void(const std::string&)>& publish) {
    std::lock_guard<std::mutex> lock(mLock);
    const auto known = std::find_if(mEntries.begin(), mEntries.end(), [&](const Entries::value_type& entry) {
        return entry.second.session == session && entry.second.object == object;
    });
    if (known != mEntries.end()) {
        ++known->second.references[holder];
        return known->first;
    }
    std::string path = newPath(kind, mNextNumber++);
    mEntries[path] = {session, kind, object, {{holder, 1}}};
    publish(path);
    return path;
}

bool ObjectExporter::holdAgain(SessionId session, const std::string& holder, const std::string& path) {
    std::lock_guard<std::mutex> lock(mLock);
    const auto entry = mEntries.find(path);
    if (entry == mEntries.end() || entry->second.session != session) return false;
    ++entry->second.references[holder];
    return true;
}

bool ObjectExporter::isHeldBy(SessionId session, const std::string& holder, const std::string& path) const {
    std::lock_guard<std::mutex> lock(mLock);
    const auto entry = mEntries.find(path);
    return entry != mEntries.end() && entry->second.session == session &&
           entry->second.references.count(holder) != 0;
}

std::vector<ObjectExporter::Dropped> ObjectExporter::release(SessionId session, const std::string& holder,
                                                             const std::string& path) {
    std::vector<Dropped> dropped;
    std::lock_guard<std::mutex> lock(mLock);
    auto entry = mEntries.find(path);
    if (entry == mEntries.end() || entry->second.session != session) return dropped;
    auto& references = entry->second.references;
    const auto count = references.find(holder);
    if (count == references.end()) return dropped;
    if (--count->second == 0) references.erase(count);
    dropIfUnheld(mEntries, entry, dropped);
    return dropped;
}

std::vector<ObjectExporter::Dropped> ObjectExporter::releaseHolder(SessionId session,
                                                                   const std::string& holder) {
    std::vector<Dropped> dropped;
    std::lock_guard<std::mutex> lock(mLock);
    for (auto entry = mEntries.begin(); entry != mEntries.end();) {
        if (entry->second.session == session) entry->second.references.erase(holder);
        dropIfUnheld(mEntries, entry, dropped);
    }
    return dropped;
}

std::vector<ObjectExporter::Dropped> ObjectExporter::releaseSession(SessionId session) {
    std::vector<Dropped> dropped;
    std::lock_guard<std::mutex> lock(mLock);
    for (auto entry = mEntries.begin(); entry != mEntries.end();) {
        if (entry->second.session == session) entry->second.references.clear();
        dropIfUnheld(mEntries, entry, dropped);
    }
    return dropped;
}

sp<ObjectExporter::IBase> ObjectExporter::find(SessionId session, Kind kind, const std::string& path) const {
    std::lock_guard<std::mutex> lock(mLock);
    const auto entry = mEntries.find(path);
    if (entry == mEntries.end() || entry->second.session != session || entry->second.kind != kind)
        return nullptr;
    return entry->second.object;
}

// Moves on to the next entry, with or without this one.
void ObjectExporter::dropIfUnheld(Entries& entries, Entries::iterator& entry, std::vector<Dropped>& dropped) {
    if (!entry->second.references.empty()) {
        ++entry;
        return;
    }
    dropped.push_back({entry->first, std::move(entry->second.object)});
    entry = entries.erase(entry);
}

}  // namespace vel::dbus_transport
