#include "ProducerConnections.h"

namespace vel::dbus_transport {

void ProducerConnections::put(const std::string& path, Connection connection) {
    std::lock_guard<std::mutex> lock(mLock);
    mConnections[path] = {++mLastNumber, std::move(connection)};
}

uint64_t ProducerConnections::numberAt(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mLock);
    const auto entry = mConnections.find(path);
    return entry != mConnections.end() ? entry->second.first : 0;
}

void ProducerConnections::forget(const std::string& path, uint64_t number) {
    std::lock_guard<std::mutex> lock(mLock);
    const auto entry = mConnections.find(path);
    if (entry != mConnections.end() && entry->second.first == number) mConnections.erase(entry);
}

std::vector<ProducerConnections::Connection> ProducerConnections::takeAllOf(SessionId session,
                                                                            const std::string& busName) {
    return takeIf([&](const Connection& connection) {
        return connection.session == session && connection.busName == busName;
    });
}

std::vector<ProducerConnections::Connection> ProducerConnections::takeAll(SessionId session) {
    return takeIf([&](const Connection& connection) { return connection.session == session; });
}

template <typename Predicate>
std::vector<ProducerConnections::Connection> ProducerConnections::takeIf(Predicate predicate) {
    std::vector<Connection> taken;
    std::lock_guard<std::mutex> lock(mLock);
    for (auto entry = mConnections.begin(); entry != mConnections.end();) {
        if (!predicate(entry->second.second)) {
            ++entry;
            continue;
        }
        taken.push_back(std::move(entry->second.second));
        entry = mConnections.erase(entry);
    }
    return taken;
}

}  // namespace vel::dbus_transport
