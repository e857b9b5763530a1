#include <gui/Surface.h>

namespace android {

Surface::Surface(const sp<IGraphicBufferProducer>& bufferProducer, bool /*controlledByApp*/)
    : mGraphicBufferProducer(bufferProducer) {}

sp<IGraphicBufferProducer> Surface::getIGraphicBufferProducer() const {
    return mGraphicBufferProducer;
}

}  // namespace android
