#pragma once

#include <android-base/unique_fd.h>
#include <android/hardware/graphics/bufferqueue/1.0/IGraphicBufferProducer.h>

#include <cstdint>
#include <type_traits>

// The packets of a channel; README.md has the table.
namespace vel::queue_channel {

using IGraphicBufferProducer = android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;

inline constexpr char kLogTag[] = "QueueChannel";

inline constexpr uint16_t kVersion = 1;
inline constexpr int32_t kSlotCount = 64;
inline constexpr int32_t kNoSlot = -1;                // stands for every number that is no slot
inline constexpr int32_t kMaxDataSpace = 0x3fffffff;  // an android_dataspace can have no other value

enum class Operation : uint16_t {
    REQUEST_BUFFER = 1,
    DEQUEUE_BUFFER,
    QUEUE_BUFFER,
    CANCEL_BUFFER,
    CONNECT,
    DISCONNECT,
    QUERY,
    SET_MAX_DEQUEUED_BUFFER_COUNT,
    SET_ASYNC_MODE,
    SET_DEQUEUE_TIMEOUT,
    GET_CONSUMER_NAME,
    GET_UNIQUE_ID,
};

/** What an operation does not use is 0. */
struct Request {
    explicit Request(Operation operation = {}, int64_t value = 0, int32_t option = 0)
        : operation(operation), value(value), option(option) {}

    uint16_t version = kVersion;
    Operation operation;
    uint32_t number = 0;  // the caller's; the reply repeats it
    int64_t value;        // a frame's time or a limit in ns, an api, a count, a flag, what is queried
    int32_t slot = 0;
    int32_t option;  // isAutoTimestamp, producerControlledByApp, the mode of a disconnect
    uint32_t width = 0, height = 0;
    android::hardware::graphics::common::V1_0::PixelFormat format{};
    uint32_t usage = 0;
    android::hardware::graphics::common::V1_0::Dataspace dataSpace{};
    int32_t scalingMode = 0;
    android::hardware::media::V1_0::Rect crop{};
    uint32_t transform = 0, stickyTransform = 0;

    bool isInRange() const {
        const auto space = static_cast<int32_t>(dataSpace);
        return slot >= kNoSlot && slot < kSlotCount && space >= 0 && space <= kMaxDataSpace;
    }
    static constexpr Operation kWithHandle[] = {Operation::QUEUE_BUFFER, Operation::CANCEL_BUFFER};
};

struct Reply {
    uint16_t version = kVersion;
    Operation operation{};
    uint32_t number = 0;
    int32_t failure = 0;  // 0, or the transport error with which the queue was not reached
    int32_t status = 0;   // the queue's
    int32_t slot = 0;
    int32_t value = 0;  // that was queried
    /** The buffer's; also the width, the height and the id of the queue. */
    android::hardware::media::V1_0::AnwBufferAttributes attributes{};
    uint64_t nextFrameNumber = 0;
    uint32_t transformHint = 0, numPendingBuffers = 0, bufferReplaced = 0;
    char name[44] = {};  // the consumer's, cut to 43 bytes

    bool isInRange() const { return slot >= kNoSlot && slot < kSlotCount; }
    static constexpr Operation kWithHandle[] = {Operation::REQUEST_BUFFER, Operation::DEQUEUE_BUFFER};
};

// Nothing of the sender's memory crosses in gaps.
static_assert(sizeof(Request) == 72 && std::has_unique_object_representations_v<Request>);
static_assert(sizeof(Reply) == 128 && std::has_unique_object_representations_v<Reply>);

/**
 * Sends a packet with a handle, which is empty or has one descriptor. 0 or the errno: EINVAL for another
 * handle, EPIPE when the other end is gone.
 */
int send(int socket, const void* packet, size_t size, const android::hardware::hidl_handle& handle,
         int flags);

// NO_DESCRIPTOR: this process may have no more, so one that was sent is lost.
enum class Received { PACKET, END, NO_DESCRIPTOR, MALFORMED };

/** Waits for a packet of that size. The handle owns its descriptor, if any; others are closed. */
Received receive(int socket, void* packet, size_t size, android::hardware::hidl_handle* handle);

/** The same for a Request or a Reply, which must make sense. */
template <typename Packet>
Received receive(int socket, Packet* packet, android::hardware::hidl_handle* handle) {
    const Received received = receive(socket, packet, sizeof(*packet), handle);
    const bool isKnown = packet->version == kVersion && packet->operation >= Operation::REQUEST_BUFFER &&
                         packet->operation <= Operation::GET_UNIQUE_ID && packet->isInRange();
    const bool mayHaveHandle =
        packet->operation == Packet::kWithHandle[0] || packet->operation == Packet::kWithHandle[1];
    if (received != Received::PACKET || (isKnown && (mayHaveHandle || handle->getNativeHandle() == nullptr)))
        return received;
    return Received::MALFORMED;
}

}  // namespace vel::queue_channel
