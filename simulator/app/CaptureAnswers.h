#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vel::sim {

struct CaptureMessage {
    uint32_t frame = 0;
    bool isRequest = false;
};

/** Which capture a message of the HAL is about; nothing for any other message. */
std::optional<CaptureMessage> captureIn(const std::string& message);

/**
 * The answer that makes the changes of metadataChanges() which apply to the capture; empty when none does.
 */
std::string changesOf(const CaptureMessage& capture);

}  // namespace vel::sim
