#pragma once

#include <cstdint>
#include <string>

namespace vel::sim {

/** The programs of a session, with the process ids that they have in its trace. */
enum class Peer : int { SERVICE = 1, CAMERA_SERVER = 2, APP = 3, RUN = 4 };

/**
 * The tracks of a program, with the thread ids that they have in a trace. Slices of one track follow each
 * other or nest, so each track belongs to one thread at a time.
 */
enum class Track : int {
    COMMANDS = 1,  // lines of standard input
    FRAME_COMMANDS,
    LINK,
    CAMERAS,
    FRAMES,
    FIGURES,
    LOG,
    MESSAGES,
    PEERS,
    FAULTS,
    STREAM_0 = 20,    // and behind it the others
    CAPTURES_0 = 40,  // and behind it those of the other cameras
};

/** The track of a stream, 0 to 3. */
constexpr Track streamTrack(uint32_t stream) {
    return static_cast<Track>(static_cast<uint32_t>(Track::STREAM_0) + stream);
}
/** The track of the captures of a framework camera, 0 to 15. */
constexpr Track capturesTrack(uint32_t fwkId) {
    return static_cast<Track>(static_cast<uint32_t>(Track::CAPTURES_0) + fwkId);
}

/** As in "camera_server"; empty for a number that no program has. */
std::string peerName(int peer);
/** As in "stream 0"; empty for a number that no track has. */
std::string trackName(int track);

}  // namespace vel::sim
