#pragma once

#include <cstdint>

#include "LatencyStats.h"
#include "SyntheticSensor.h"

namespace vel::sim {

/** Tells an exchange of a camera's captures as an event; nothing when nobody wants events. */
void tellExchange(uint32_t fwkId, uint32_t frame, bool isRequest, int64_t startNs, int64_t endNs);

/** Tells what is in the capture's metadata now and was not before; before may be null. */
void tellChanges(uint32_t fwkId, uint32_t frame, bool isRequest, const camera_metadata_t* before,
                 const camera_metadata_t* now);

/** The times of the last second's exchanges. */
void tellExchangeTimes(const LatencyStats& second);

void tellCapturesEnd(uint32_t fwkId, uint32_t frames, const LatencyStats& all);

}  // namespace vel::sim
