#pragma once

#include <cstddef>
#include <cstdint>

/** The desktop service as it stands on the bus. Both ends are written against these names. */
namespace vel::desktop_bus {

// Environment variable with the bus's address, for example "unix:path=/tmp/bus".
inline constexpr char kAddressVariable[] = "VEL_DESKTOP_BUS_ADDRESS";

inline constexpr char kServiceName[] = "korvanta.hardware.camera.desktop.V2_0";
inline constexpr char kServicePath[] = "/korvanta/hardware/camera/desktop/default";
inline constexpr char kServiceInterface[] = "korvanta.hardware.camera.desktop.V2_0.ICameraDesktop";
inline constexpr char kRegisterCallback[] = "RegisterCallback";  // y(so)
inline constexpr char kSendCommand[] = "SendCommand";            // yv -> v
inline constexpr char kSetSurface[] = "SetSurface";              // y(so)
inline constexpr char kGetSurface[] = "GetSurface";              // y -> (so)

inline constexpr char kCallbackInterface[] = "korvanta.hardware.camera.desktop.V1_0.ICameraDesktopCallback";
inline constexpr char kOnCommand[] = "OnCommand";  // v -> v

inline constexpr char kProducerInterface[] =
    "android.hardware.graphics.bufferqueue.V1_0.IGraphicBufferProducer";
// A new channel to the queue, for a process that holds a reference: the descriptor of a socket.
inline constexpr char kOpenChannel[] = "OpenChannel";  // -> h

// Every exported object also has this interface. Whoever is handed a reference by the object's own process
// holds it, and whoever hears of the object from a third one acquires its own. Each is given back by one
// Release, sent by the process that held it; no reply.
inline constexpr char kReferenceInterface[] = "korvanta.hardware.camera.desktop.Reference";
inline constexpr char kAcquire[] = "Acquire";
inline constexpr char kRelease[] = "Release";

// Errors of the service itself. Their names share the prefix, so that none reads as the service's own death.
inline constexpr char kErrorPrefix[] = "korvanta.hardware.camera.desktop.Error.";
inline constexpr char kErrorNoPeer[] = "korvanta.hardware.camera.desktop.Error.NoPeer";
inline constexpr char kErrorPeerFailed[] = "korvanta.hardware.camera.desktop.Error.PeerFailed";

// Errors of the bus that this project names.
inline constexpr char kErrorNoReply[] = "org.freedesktop.DBus.Error.NoReply";
inline constexpr char kErrorFailed[] = "org.freedesktop.DBus.Error.Failed";
inline constexpr char kErrorInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr char kErrorAccessDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
inline constexpr char kErrorLimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";
inline constexpr char kErrorUnknownObject[] = "org.freedesktop.DBus.Error.UnknownObject";

// Of the lines that the transport logs.
inline constexpr char kLogTag[] = "DesktopBus";

// The longest text that either end sends or accepts.
inline constexpr uint64_t kMaxTextBytes = 64u << 20;
// Texts up to this length travel as D-Bus strings, longer ones in shared memory: strings are checked
// character by character at each hop.
inline constexpr size_t kMaxInlineBytes = 8u << 10;

}  // namespace vel::desktop_bus
