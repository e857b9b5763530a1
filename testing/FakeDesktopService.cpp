#include "FakeDesktopService.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <utility>

using android::sp;
using android::hardware::hidl_string;
using android::hardware::Return;
using android::hardware::Void;

namespace {

void require(bool condition, const char* failure) {
    if (condition) return;
    fprintf(stderr, "FakeDesktopService: %s\n", failure);
    abort();
}

}  // namespace

sp<FakeDesktopService> FakeDesktopService::start(const std::string& name) {
    sp<FakeDesktopService> service = new FakeDesktopService;
    require(service->registerAsService(name) == android::OK, "the registration was refused");
    return service;
}

void FakeDesktopService::setReply(ClientType type, ReplyFunction reply) {
    std::lock_guard<std::mutex> lock(mLock);
    mReplies[type] = std::move(reply);
}

void FakeDesktopService::setReply(ClientType type, const std::string& reply) {
    setReply(type, [reply](ClientType, const std::string&) { return reply; });
}

void FakeDesktopService::block(const std::string& operation) {
    std::lock_guard<std::mutex> lock(mLock);
    mBlocked.insert(operation);
}

void FakeDesktopService::unblock(const std::string& operation) {
    std::lock_guard<std::mutex> lock(mLock);
    mBlocked.erase(operation);
    mChanged.notify_all();
}

bool FakeDesktopService::awaitBlocked(const std::string& operation) {
    std::unique_lock<std::mutex> lock(mLock);
    return mChanged.wait_for(lock, std::chrono::seconds(30), [&] { return mWaiting[operation] > 0; });
}

void FakeDesktopService::during(const std::string& operation, std::function<void()> action) {
    std::lock_guard<std::mutex> lock(mLock);
    mActions[operation] = std::move(action);
}

std::vector<std::string> FakeDesktopService::calls(const std::string& beginning) const {
    std::lock_guard<std::mutex> lock(mLock);
    std::vector<std::string> selected;
    std::copy_if(mCalls.begin(), mCalls.end(), std::back_inserter(selected),
                 [&](const std::string& call) { return call.rfind(beginning, 0) == 0; });
    return selected;
}

void FakeDesktopService::forgetCalls() {
    std::lock_guard<std::mutex> lock(mLock);
    mCalls.clear();
}

sp<FakeDesktopService::ICameraDesktopCallback> FakeDesktopService::callback(ClientType type) const {
    std::lock_guard<std::mutex> lock(mLock);
    const auto found = mCallbacks.find(type);
    return found == mCallbacks.end() ? nullptr : found->second;
}

sp<FakeDesktopService::IGraphicBufferProducer> FakeDesktopService::surface(ClientType type) const {
    std::lock_guard<std::mutex> lock(mLock);
    const auto found = mSurfaces.find(type);
    return found == mSurfaces.end() ? nullptr : found->second;
}

// The surface that is replaced goes after the lock: its destructor is not ours.
void FakeDesktopService::offerSurface(ClientType type, const sp<IGraphicBufferProducer>& producer) {
    sp<IGraphicBufferProducer> replaced = producer;
    std::lock_guard<std::mutex> lock(mLock);
    std::swap(mSurfaces[type], replaced);
}

std::optional<std::string> FakeDesktopService::sendToCallback(const std::string& command, ClientType type) {
    const sp<ICameraDesktopCallback> receiver = callback(type);
    if (receiver == nullptr) return std::nullopt;
    std::optional<std::string> result;
    const Return<void> sent = receiver->onCommand(command, [&result](const hidl_string& reply) {
        require(!result, "the callback replied twice");
        result = reply;
    });
    if (!sent.isOk()) return std::nullopt;
    require(result.has_value(), "the callback did not reply");
    return result;
}

Return<void> FakeDesktopService::registerCallback(ClientType type,
                                                  const sp<ICameraDesktopCallback>& callback) {
    record(Operation::REGISTER_CALLBACK, type);
    sp<ICameraDesktopCallback> replaced = callback;
    std::lock_guard<std::mutex> lock(mLock);
    std::swap(mCallbacks[type], replaced);
    return Void();
}

Return<void> FakeDesktopService::sendCommand(ClientType type, const hidl_string& command,
                                             sendCommand_cb _hidl_cb) {
    record(Operation::SEND_COMMAND, type, " " + std::string(command));
    ReplyFunction reply;
    {
        std::lock_guard<std::mutex> lock(mLock);
        reply = mReplies[type];
    }
    _hidl_cb(reply ? reply(type, command) : std::string());
    return Void();
}

Return<void> FakeDesktopService::setSurface(ClientType type, const sp<IGraphicBufferProducer>& producer) {
    record(Operation::SET_SURFACE, type, producer == nullptr ? " null" : " producer");
    offerSurface(type, producer);
    return Void();
}

Return<sp<FakeDesktopService::IGraphicBufferProducer>> FakeDesktopService::getSurface(ClientType type) {
    record(Operation::GET_SURFACE, type);
    return surface(type);
}

void FakeDesktopService::record(const std::string& operation, ClientType type, const std::string& argument) {
    std::unique_lock<std::mutex> lock(mLock);
    mCalls.push_back(operation + " " + std::to_string(static_cast<int>(type)) + argument);
    ++mWaiting[operation];
    mChanged.notify_all();
    mChanged.wait(lock, [&] { return mBlocked.count(operation) == 0; });
    --mWaiting[operation];
    const std::function<void()> action = mActions[operation];
    lock.unlock();
    if (action) action();
}
