#pragma once

namespace android {
namespace BufferQueueDefs {

enum { NUM_BUFFER_SLOTS = 64 };

}  // namespace BufferQueueDefs
}  // namespace android
