#include "RemoteGraphicBufferProducer.h"

#include <android/log.h>
#include <fcntl.h>
#include <sdbus-c++/sdbus-c++.h>

#include "DesktopBusNames.h"

namespace vel::dbus_transport {

namespace bus = vel::desktop_bus;

namespace {

android::base::unique_fd openChannel(BusLoop& loop, const RemoteObject& target) {
    android::base::unique_fd channel;
    const CallStatus status = loop.call(target, bus::kProducerInterface, bus::kOpenChannel, writeNothing,
                                        [&](sdbus::MethodReply& reply) {
                                            sdbus::UnixFd received;
                                            reply >> received;
                                            channel.reset(fcntl(received.get(), F_DUPFD_CLOEXEC, 0));
                                        });
    if (channel < 0)
        __android_log_print(ANDROID_LOG_WARN, bus::kLogTag, "No channel to %s of %s: %s",
                            target.object.path.c_str(), target.object.busName.c_str(), status.text.c_str());
    return channel;
}

}  // namespace

RemoteGraphicBufferProducer::RemoteGraphicBufferProducer(DesktopTransport& transport,
                                                         const RemoteObject& target)
    : RemoteProducer(openChannel(transport.loop(), target)),
      mLink(transport, this, target, bus::kProducerInterface) {}

RemoteGraphicBufferProducer::~RemoteGraphicBufferProducer() {
    mLink.transport().giveBack(mLink.target());
}

}  // namespace vel::dbus_transport
