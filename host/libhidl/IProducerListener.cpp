#include <android/hardware/graphics/bufferqueue/1.0/IProducerListener.h>

#include "BaseOperations.h"

namespace android::hardware::graphics::bufferqueue::V1_0 {

const char* IProducerListener::descriptor = "android.hardware.graphics.bufferqueue@1.0::IProducerListener";

VEL_DEFINE_BASE_OPERATIONS(IProducerListener)

}  // namespace android::hardware::graphics::bufferqueue::V1_0
