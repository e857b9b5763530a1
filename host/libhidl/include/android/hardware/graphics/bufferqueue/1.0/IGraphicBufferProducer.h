#pragma once

#include <android/hardware/graphics/bufferqueue/1.0/IProducerListener.h>
#include <android/hardware/graphics/common/1.0/types.h>
#include <android/hardware/media/1.0/types.h>
#include <android/hidl/base/1.0/IBase.h>

#include <cstdint>
#include <functional>

#pragma GCC visibility push(default)

namespace android::hardware::graphics::bufferqueue::V1_0 {

/**
 * The producer's end of a buffer queue, as it crosses between processes. Statuses and flags are plain
 * integers: those of android::IGraphicBufferProducer. Operations that no adapter uses are not pure: they
 * answer INVALID_OPERATION.
 */
struct IGraphicBufferProducer : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    typedef int32_t Status;

    struct FenceTimeSnapshot final {
        enum class State : int32_t { EMPTY = 0, FENCE = 1, SIGNAL_TIME = 2 };
        State state;
        ::android::hardware::hidl_handle fence;
        int64_t signalTimeNs;
    };

    struct FrameEventsDelta final {
        uint32_t index;
        uint64_t frameNumber;
        bool addPostCompositeCalled;
        bool addRetireCalled;
        bool addReleaseCalled;
        int64_t postedTimeNs;
        int64_t requestedPresentTimeNs;
        int64_t latchTimeNs;
        int64_t firstRefreshStartTimeNs;
        int64_t lastRefreshStartTimeNs;
        int64_t dequeueReadyTime;
        FenceTimeSnapshot gpuCompositionDoneFence;
        FenceTimeSnapshot displayPresentFence;
        FenceTimeSnapshot displayRetireFence;
        FenceTimeSnapshot releaseFence;
    };

    struct CompositorTiming final {
        int64_t deadlineNs;
        int64_t intervalNs;
        int64_t presentLatencyNs;
    };

    struct FrameEventHistoryDelta final {
        ::android::hardware::hidl_vec<FrameEventsDelta> deltas;
        CompositorTiming compositorTiming;
    };

    enum class DisconnectMode : int32_t { API = 0, ALL_LOCAL = 1 };

    struct QueueBufferInput final {
        int64_t timestamp;  // ns
        int32_t isAutoTimestamp;
        ::android::hardware::graphics::common::V1_0::Dataspace dataSpace;
        ::android::hardware::media::V1_0::Rect crop;
        int32_t scalingMode;
        uint32_t transform;
        uint32_t stickyTransform;
        ::android::hardware::hidl_handle fence;
        ::android::hardware::hidl_vec<::android::hardware::media::V1_0::Rect> surfaceDamage;
        bool getFrameTimestamps;
    };

    struct QueueBufferOutput final {
        uint32_t width;
        uint32_t height;
        uint32_t transformHint;
        uint32_t numPendingBuffers;
        uint64_t nextFrameNumber;
        bool bufferReplaced;
        FrameEventHistoryDelta frameTimestamps;
    };

    virtual bool isRemote() const override;

    using requestBuffer_cb =
        std::function<void(int32_t status, const ::android::hardware::media::V1_0::AnwBuffer& buffer)>;
    virtual ::android::hardware::Return<void> requestBuffer(int32_t slot, requestBuffer_cb _hidl_cb) = 0;

    virtual ::android::hardware::Return<int32_t> setMaxDequeuedBufferCount(int32_t maxDequeuedBuffers) = 0;

    virtual ::android::hardware::Return<int32_t> setAsyncMode(bool async);

    using dequeueBuffer_cb =
        std::function<void(int32_t status, int32_t slot, const ::android::hardware::hidl_handle& fence,
                           const FrameEventHistoryDelta& outTimestamps)>;
    virtual ::android::hardware::Return<void> dequeueBuffer(
        uint32_t width, uint32_t height, ::android::hardware::graphics::common::V1_0::PixelFormat format,
        uint32_t usage, bool getFrameTimestamps, dequeueBuffer_cb _hidl_cb) = 0;

    virtual ::android::hardware::Return<int32_t> detachBuffer(int32_t slot);

    using detachNextBuffer_cb =
        std::function<void(int32_t status, const ::android::hardware::media::V1_0::AnwBuffer& buffer,
                           const ::android::hardware::hidl_handle& fence)>;
    virtual ::android::hardware::Return<void> detachNextBuffer(detachNextBuffer_cb _hidl_cb);

    using attachBuffer_cb = std::function<void(int32_t status, int32_t slot)>;
    virtual ::android::hardware::Return<void> attachBuffer(
        const ::android::hardware::media::V1_0::AnwBuffer& buffer, attachBuffer_cb _hidl_cb);

    using queueBuffer_cb = std::function<void(int32_t status, const QueueBufferOutput& output)>;
    virtual ::android::hardware::Return<void> queueBuffer(int32_t slot, const QueueBufferInput& input,
                                                          queueBuffer_cb _hidl_cb) = 0;

    virtual ::android::hardware::Return<int32_t> cancelBuffer(
        int32_t slot, const ::android::hardware::hidl_handle& fence) = 0;

    using query_cb = std::function<void(int32_t result, int32_t value)>;
    virtual ::android::hardware::Return<void> query(int32_t what, query_cb _hidl_cb);

    using connect_cb = std::function<void(int32_t status, const QueueBufferOutput& output)>;
    virtual ::android::hardware::Return<void> connect(const ::android::sp<IProducerListener>& listener,
                                                      int32_t api, bool producerControlledByApp,
                                                      connect_cb _hidl_cb) = 0;

    virtual ::android::hardware::Return<int32_t> disconnect(int32_t api, DisconnectMode mode) = 0;

    virtual ::android::hardware::Return<int32_t> setSidebandStream(
        const ::android::hardware::hidl_handle& stream);

    virtual ::android::hardware::Return<void> allocateBuffers(
        uint32_t width, uint32_t height, ::android::hardware::graphics::common::V1_0::PixelFormat format,
        uint32_t usage);

    virtual ::android::hardware::Return<int32_t> allowAllocation(bool allow);

    virtual ::android::hardware::Return<int32_t> setGenerationNumber(uint32_t generationNumber);

    using getConsumerName_cb = std::function<void(const ::android::hardware::hidl_string& name)>;
    virtual ::android::hardware::Return<void> getConsumerName(getConsumerName_cb _hidl_cb);

    virtual ::android::hardware::Return<int32_t> setSharedBufferMode(bool sharedBufferMode);

    virtual ::android::hardware::Return<int32_t> setAutoRefresh(bool autoRefresh);

    virtual ::android::hardware::Return<int32_t> setDequeueTimeout(int64_t timeoutNs);

    using getLastQueuedBuffer_cb =
        std::function<void(int32_t status, const ::android::hardware::media::V1_0::AnwBuffer& buffer,
                           const ::android::hardware::hidl_handle& fence,
                           const ::android::hardware::hidl_array<float, 16>& transformMatrix)>;
    virtual ::android::hardware::Return<void> getLastQueuedBuffer(getLastQueuedBuffer_cb _hidl_cb);

    using getFrameTimestamps_cb = std::function<void(const FrameEventHistoryDelta& timeStamps)>;
    virtual ::android::hardware::Return<void> getFrameTimestamps(getFrameTimestamps_cb _hidl_cb);

    using getUniqueId_cb = std::function<void(int32_t status, uint64_t outId)>;
    virtual ::android::hardware::Return<void> getUniqueId(getUniqueId_cb _hidl_cb);

    virtual ::android::hardware::Return<void> interfaceChain(interfaceChain_cb _hidl_cb) override;
    virtual ::android::hardware::Return<void> debug(
        const ::android::hardware::hidl_handle& fd,
        const ::android::hardware::hidl_vec<::android::hardware::hidl_string>& options) override;
    virtual ::android::hardware::Return<void> interfaceDescriptor(interfaceDescriptor_cb _hidl_cb) override;
    virtual ::android::hardware::Return<void> getHashChain(getHashChain_cb _hidl_cb) override;
    virtual ::android::hardware::Return<void> setHALInstrumentation() override;
    virtual ::android::hardware::Return<bool> linkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient, uint64_t cookie) override;
    virtual ::android::hardware::Return<void> ping() override;
    virtual ::android::hardware::Return<void> getDebugInfo(getDebugInfo_cb _hidl_cb) override;
    virtual ::android::hardware::Return<void> notifySyspropsChanged() override;
    virtual ::android::hardware::Return<bool> unlinkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient) override;
};

}  // namespace android::hardware::graphics::bufferqueue::V1_0

#pragma GCC visibility pop
