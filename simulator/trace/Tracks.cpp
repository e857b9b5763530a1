#include "Tracks.h"

namespace vel::sim {

namespace {

constexpr int kStreams = 4;
constexpr int kCameras = 16;

// "stream 2" for the third number from the first one on; empty outside.
std::string numbered(const char* name, Track first, int count, int track) {
    const int index = track - static_cast<int>(first);
    return index >= 0 && index < count ? name + std::to_string(index) : "";
}

}  // namespace

std::string peerName(int peer) {
    switch (static_cast<Peer>(peer)) {
        case Peer::SERVICE:
            return "service";
        case Peer::CAMERA_SERVER:
            return "camera_server";
        case Peer::APP:
            return "app";
        case Peer::RUN:
            return "run";
    }
    return "";
}

std::string trackName(int track) {
    switch (static_cast<Track>(track)) {
        case Track::COMMANDS:
            return "commands";
        case Track::FRAME_COMMANDS:
            return "frame commands";
        case Track::LINK:
            return "link";
        case Track::CAMERAS:
            return "cameras";
        case Track::FRAMES:
            return "frames";
        case Track::FIGURES:
            return "figures";
        case Track::LOG:
            return "log and errors";
        case Track::MESSAGES:
            return "messages";
        case Track::PEERS:
            return "peers";
        case Track::FAULTS:
            return "faults";
        default:
            break;
    }
    const std::string stream = numbered("stream ", Track::STREAM_0, kStreams, track);
    return !stream.empty() ? stream : numbered("captures of camera ", Track::CAPTURES_0, kCameras, track);
}

}  // namespace vel::sim
