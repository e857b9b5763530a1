#include <android/log.h>
#include <gui/Absent.h>
#include <gui/IGraphicBufferProducer.h>
#include <stdlib.h>

namespace android {

void abortAbsent(const char* operation) {
    __android_log_print(ANDROID_LOG_FATAL, "libgui", "%s is absent from the workstation's platform",
                        operation);
    abort();
}

status_t IGraphicBufferProducer::setAsyncMode(bool) {
    abortAbsent("setAsyncMode");
}

status_t IGraphicBufferProducer::detachBuffer(int) {
    abortAbsent("detachBuffer");
}

status_t IGraphicBufferProducer::detachNextBuffer(sp<GraphicBuffer>*, sp<Fence>*) {
    abortAbsent("detachNextBuffer");
}

status_t IGraphicBufferProducer::attachBuffer(int*, const sp<GraphicBuffer>&) {
    abortAbsent("attachBuffer");
}

int IGraphicBufferProducer::query(int, int*) {
    abortAbsent("query");
}

status_t IGraphicBufferProducer::setSidebandStream(const sp<NativeHandle>&) {
    abortAbsent("setSidebandStream");
}

void IGraphicBufferProducer::allocateBuffers(uint32_t, uint32_t, PixelFormat, uint64_t) {
    abortAbsent("allocateBuffers");
}

status_t IGraphicBufferProducer::allowAllocation(bool) {
    abortAbsent("allowAllocation");
}

status_t IGraphicBufferProducer::setGenerationNumber(uint32_t) {
    abortAbsent("setGenerationNumber");
}

String8 IGraphicBufferProducer::getConsumerName() const {
    abortAbsent("getConsumerName");
}

status_t IGraphicBufferProducer::setSharedBufferMode(bool) {
    abortAbsent("setSharedBufferMode");
}

status_t IGraphicBufferProducer::setAutoRefresh(bool) {
    abortAbsent("setAutoRefresh");
}

status_t IGraphicBufferProducer::setDequeueTimeout(nsecs_t) {
    abortAbsent("setDequeueTimeout");
}

status_t IGraphicBufferProducer::setLegacyBufferDrop(bool) {
    abortAbsent("setLegacyBufferDrop");
}

status_t IGraphicBufferProducer::getLastQueuedBuffer(sp<GraphicBuffer>*, sp<Fence>*, float[16]) {
    abortAbsent("getLastQueuedBuffer");
}

void IGraphicBufferProducer::getFrameTimestamps(FrameEventHistoryDelta*) {
    abortAbsent("getFrameTimestamps");
}

status_t IGraphicBufferProducer::getUniqueId(uint64_t*) const {
    abortAbsent("getUniqueId");
}

status_t IGraphicBufferProducer::getConsumerUsage(uint64_t*) const {
    abortAbsent("getConsumerUsage");
}

status_t IGraphicBufferProducer::setAutoPrerotation(bool) {
    abortAbsent("setAutoPrerotation");
}

}  // namespace android
