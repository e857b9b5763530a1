#include "PreviewFeed.h"

#include <VelChiDesktopHelper.h>
#include <media/NdkImageReader.h>
#include <ui/GraphicBuffer.h>

#include "FrameBuffer.h"
#include "FrameHeader.h"
#include "Program.h"
#include "StartThread.h"
#include "Timeline.h"

namespace vel::sim {

using android::GraphicBuffer;
using android::sp;

namespace {
constexpr int kFps = 30;
}

PreviewFeed::PreviewFeed(VelChiDesktopHelper* helper, const StopSignal& end)
    : mHelper(helper), mEnd(end), mPicture(kPreviewSize, 0) {
    try {
        mThread = startThread("the preview", [this] { run(); });
    } catch (const std::system_error& error) {
        printLine("error %s", error.what());
    }
}

void PreviewFeed::run() {
    const auto start = StopSignal::Clock::now();
    for (uint32_t counter = 0; mEnd.waitUntil(start + std::chrono::milliseconds(1000LL * counter / kFps));
         ++counter) {
        send(counter);
    }
}

// Skips the frame when nobody takes it.
void PreviewFeed::send(uint32_t counter) {
    const auto rowBytes = static_cast<uint32_t>(frameRowBytes(kPreviewSize));
    if (!mIsConnected) mIsConnected = mHelper->connectProducer(rowBytes, 1, AIMAGE_FORMAT_RAW_PRIVATE);
    const sp<GraphicBuffer> buffer = mIsConnected ? mHelper->getFrameToFill() : nullptr;
    if (buffer == nullptr) return;
    const int64_t captureNs = steadyNowNs();
    if (buffer->getWidth() == rowBytes) {  // the application's queue may give any
        const MappedBuffer mapped(buffer, GraphicBuffer::USAGE_SW_WRITE_OFTEN);
        if (mapped.data() != nullptr) mPicture.draw(counter, FrameView(mapped.data(), kPreviewSize));
        ++mFrames;
    }
    mHelper->queueFilledFrame(captureNs);
}

}  // namespace vel::sim
