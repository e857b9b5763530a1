#include "Preview.h"

#include "FrameBuffer.h"
#include "FrameCounter.h"
#include "FrameHeader.h"

namespace vel::sim {

using android::BufferItem;

void Preview::onFrameAvailable(const BufferItem&) {
    if (mConfiguration.holds(mFrames)) return;
    BufferItem item;
    if (mQueue.consumer->acquireBuffer(&item, 0) != android::NO_ERROR) return;
    {
        const MappedBuffer mapped(item.mGraphicBuffer, android::GraphicBuffer::USAGE_SW_READ_OFTEN);
        if (item.mGraphicBuffer->getWidth() == frameRowBytes(kPreviewSize) && mapped.data() != nullptr)
            look(ConstFrameView(mapped.data(), kPreviewSize));
    }
    mQueue.consumer->releaseBuffer(item);
}

void Preview::look(const ConstFrameView& frame) {
    const auto read = readFrameCounter(frame);
    if (!read || (mFrames > 0 && read->counter <= mLast)) ++mOutOfOrder;
    if (read) mLast = read->counter;
    ++mFrames;
}

}  // namespace vel::sim
