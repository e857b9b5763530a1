#include "FakeDesktopService.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

using ::android::sp;
using ::android::hardware::hidl_string;
using ::android::hardware::Return;
using ::android::hardware::Void;

namespace {

[[noreturn]] void die(const char* text) {
    fprintf(stderr, "FakeDesktopService: %s\n", text);
    abort();
}

}  // namespace

sp<FakeDesktopService> FakeDesktopService::start(const std::string& name) {
    sp<FakeDesktopService> service = new FakeDesktopService;
    if (service->registerAsService(name) != ::android::OK) die("the registration was refused");
    return service;
}

void FakeDesktopService::setReply(ReplyFunction reply) {
    std::lock_guard guard(mLock);
    mReply = std::move(reply);
}

void FakeDesktopService::setReply(ClientType type, ReplyFunction reply) {
    std::lock_guard guard(mLock);
    mReplies[type] = std::move(reply);
}

void FakeDesktopService::setReply(ClientType type, const std::string& reply) {
    setReply(type, [reply](ClientType, const std::string&) { return reply; });
}

void FakeDesktopService::block(Operation operation) {
    std::lock_guard guard(mLock);
    mBlocked.insert(operation);
}

void FakeDesktopService::unblock(Operation operation) {
    std::lock_guard guard(mLock);
    mBlocked.erase(operation);
    mChanged.notify_all();
}

bool FakeDesktopService::awaitBlocked(Operation operation, size_t count) {
    std::unique_lock guard(mLock);
    return mChanged.wait_for(guard, std::chrono::seconds(30), [&] { return mWaiting[operation] >= count; });
}

std::vector<FakeDesktopService::Call> FakeDesktopService::calls() const {
    std::lock_guard guard(mLock);
    return mCalls;
}

std::vector<FakeDesktopService::Call> FakeDesktopService::calls(Operation operation) const {
    std::vector<Call> selected;
    for (const Call& call : calls()) {
        if (call.operation == operation) selected.push_back(call);
    }
    return selected;
}

std::vector<std::string> FakeDesktopService::commandsTo(ClientType type) const {
    std::vector<std::string> texts;
    for (const Call& call : calls(Operation::SEND_COMMAND)) {
        if (call.type == type) texts.push_back(call.command);
    }
    return texts;
}

void FakeDesktopService::forgetCalls() {
    std::lock_guard guard(mLock);
    mCalls.clear();
}

sp<FakeDesktopService::ICameraDesktopCallback> FakeDesktopService::callback(ClientType type) const {
    std::lock_guard guard(mLock);
    const auto found = mCallbacks.find(type);
    return found == mCallbacks.end() ? nullptr : found->second;
}

sp<FakeDesktopService::IGraphicBufferProducer> FakeDesktopService::surface(ClientType type) const {
    std::lock_guard guard(mLock);
    const auto found = mSurfaces.find(type);
    return found == mSurfaces.end() ? nullptr : found->second;
}

// The surface that is replaced goes after the lock: its destructor is not ours.
void FakeDesktopService::offerSurface(ClientType type, const sp<IGraphicBufferProducer>& producer) {
    sp<IGraphicBufferProducer> replaced = producer;
    std::lock_guard guard(mLock);
    std::swap(mSurfaces[type], replaced);
}

std::optional<std::string> FakeDesktopService::sendToCallback(const std::string& command, ClientType type) {
    const sp<ICameraDesktopCallback> receiver = callback(type);
    if (receiver == nullptr) return std::nullopt;
    std::optional<std::string> result;
    const Return<void> sent = receiver->onCommand(command, [&result](const hidl_string& reply) {
        if (result) die("the callback replied twice");
        result = reply;
    });
    if (!sent.isOk()) return std::nullopt;
    if (!result) die("the callback did not reply");
    return result;
}

Return<void> FakeDesktopService::registerCallback(ClientType type,
                                                  const sp<ICameraDesktopCallback>& callback) {
    record({Operation::REGISTER_CALLBACK, type, "", callback.get()});
    sp<ICameraDesktopCallback> replaced = callback;
    std::lock_guard guard(mLock);
    std::swap(mCallbacks[type], replaced);
    return Void();
}

Return<void> FakeDesktopService::sendCommand(ClientType type, const hidl_string& command,
                                             sendCommand_cb _hidl_cb) {
    record({Operation::SEND_COMMAND, type, command});
    const ReplyFunction reply = replyFor(type);
    _hidl_cb(reply ? reply(type, command) : std::string());
    return Void();
}

Return<void> FakeDesktopService::setSurface(ClientType type, const sp<IGraphicBufferProducer>& producer) {
    record({Operation::SET_SURFACE, type, "", producer.get()});
    offerSurface(type, producer);
    return Void();
}

Return<sp<FakeDesktopService::IGraphicBufferProducer>> FakeDesktopService::getSurface(ClientType type) {
    record({Operation::GET_SURFACE, type});
    return surface(type);
}

void FakeDesktopService::record(Call call) {
    const Operation operation = call.operation;
    std::unique_lock guard(mLock);
    mCalls.push_back(std::move(call));
    ++mWaiting[operation];
    mChanged.notify_all();
    mChanged.wait(guard, [&] { return mBlocked.count(operation) == 0; });
    --mWaiting[operation];
}

FakeDesktopService::ReplyFunction FakeDesktopService::replyFor(ClientType type) const {
    std::lock_guard guard(mLock);
    const auto found = mReplies.find(type);
    return found == mReplies.end() ? mReply : found->second;
}
