#include "dbus_transport_peer.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <thread>

#include "DesktopBusNames.h"

using android::sp;

namespace {

void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

struct SayingRecipient : public android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t, const android::wp<android::hidl::base::V1_0::IBase>&) override { say("died"); }
};

std::string answer(const sp<ICameraDesktop>& service, const std::string& command) {
    if (command == "ask back")
        return send(service, ClientType::CLIENT_CAMERA_HAL, "question").reply.value_or("");
    if (command == "hang") {
        say("hanging");
        for (;;)
            pause();
    }
    return command;
}

class Peer {
  public:
    // False when the process is to end.
    bool obey(const std::string& line) {
        const std::string verb = line.substr(0, line.find(' '));
        const std::string rest = verb.size() < line.size() ? line.substr(verb.size() + 1) : "";
        if (verb == "find") find();
        if (verb == "register") registerCallback();
        if (verb == "link") say(mService->linkToDeath(mRecipient, 0) ? "linked" : "not linked");
        if (verb == "send") sendFromThread(rest);
        if (verb == "first") say(mFirstService->ping().isOk() ? "first lives" : "first dead");
        if (verb == "bus") {
            setenv(vel::desktop_bus::kAddressVariable, rest.c_str(), 1);
            say("bus set");
        }
        return verb != "exit";
    }

  private:
    void find() {
        mService = ICameraDesktop::tryGetService("default", false);
        if (mFirstService == nullptr) mFirstService = mService;
        say(mService != nullptr ? "found" : "null");
    }

    void registerCallback() {
        mCallback = new FunctionCallback(
            [service = mService](const std::string& command) { return answer(service, command); });
        const bool done = mService->registerCallback(ClientType::CLIENT_APP, mCallback).isOk();
        say(done ? "registered" : "not registered");
    }

    void sendFromThread(const std::string& text) {
        std::thread([service = mService, text] {
            say("sending");
            const Outcome outcome = send(service, ClientType::CLIENT_APP, text);
            say(outcome.isOk ? "sent ok" : outcome.isDead ? "sent dead" : "sent failed");
        }).detach();
    }

    sp<ICameraDesktop> mService;
    sp<ICameraDesktop> mFirstService;
    sp<ICameraDesktopCallback> mCallback;
    const sp<SayingRecipient> mRecipient = new SayingRecipient;
};

}  // namespace

int runDesktopPeer() {
    static Peer& peer = *new Peer;  // its threads may outlast main()
    std::string line;
    while (std::getline(std::cin, line) && peer.obey(line)) {
    }
    return EXIT_SUCCESS;
}
