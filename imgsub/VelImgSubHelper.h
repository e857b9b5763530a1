#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include <utils/StrongPointer.h>  // after <cstdint>, which it needs

#include "Export.h"
#include "ThreadSafety.h"

namespace android {
class GraphicBuffer;
class IGraphicBufferProducer;
}  // namespace android

namespace android::hardware::graphics::bufferqueue::V1_0 {
struct IGraphicBufferProducer;
}

struct AImage;        // the media library's
struct AImageReader;  // the media library's

class VelChiDesktopHelper;

/**
 * Image substitution of one configured set of up to four streams: the HAL's frames go out to the application,
 * its replacements come back through an image reader and are handed to the HAL without a copy.
 *
 * For each frame and stream the HAL calls imgSubGetOutputFrameToFill(), fills the buffer and calls
 * imgSubQueueOutputFrame(); later imgSubAcquireFrame() for the replacement, and imgSubReleaseFrame() once it
 * has used it. Stream indexes are 0 to 3; any other is answered with null or nothing.
 *
 * Created by the stream configuration, shared between it and the HAL threads that use it. Any thread may
 * call, except that the destructor runs when no other call is in progress: the last reference goes then.
 *
 * Locks: mLock guards every member; it is held across the calls to the application's queue and to the reader,
 * so a call may wait for another stream's. It is taken before the desktop helper's service lock.
 * setImgSubAppConnected(), imgSubReleaseFrame() and the destructor take no lock of this class, so the owner
 * may use them while it holds the service lock. Nothing throws; a failure gives null or nothing, mostly with
 * one log line: a stream index out of range, a missing connection and a missing surface are silent.
 */
class VEL_EXPORT VelImgSubHelper {
  public:
    using HidlProducer = android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;

    /**
     * readerProducer is the handle of the reader's own input surface, as the service was given it: while the
     * service still returns it, the application has no surface. The reader (may be null) passes into this
     * object's ownership. The output is what the outbound buffers are asked for; the image size (pixels)
     * tells where in a replacement its private header lies. appConnected: whether the application's side may
     * be used. mergeStreams: lower streams share the replacement of the highest one in use.
     */
    VEL_LOCAL VelImgSubHelper(const android::sp<HidlProducer>& readerProducer, AImageReader* reader,
                              uint32_t outputWidth, uint32_t outputHeight, uint32_t outputFormat,
                              uint32_t imageWidth, uint32_t imageHeight, bool appConnected,
                              bool mergeStreams);

    /** Disconnects from the application's queue, lets the images go and deletes the reader. */
    VEL_LOCAL ~VelImgSubHelper();

    VelImgSubHelper(const VelImgSubHelper&) = delete;
    VelImgSubHelper& operator=(const VelImgSubHelper&) = delete;

    /**
     * Lends the HAL one buffer of the application's queue for the stream. Null when there is none this time:
     * the application is not connected or has no surface yet (each call asks the service again), no usable
     * slot, or a buffer that its last reader has not let go of within 100 ms. A queue that fails is
     * disconnected; the next call connects anew. Waits without limit, with mLock held, while the application
     * or the HAL holds every buffer. Buffers that the HAL asked for and never queued count: only once a frame
     * was queued since the connection does the queue fail instead, when more than six are lent.
     */
    android::sp<android::GraphicBuffer> imgSubGetOutputFrameToFill(uint32_t streamIndex);

    /**
     * Hands the stream's lent buffer to the application with its time stamp (ns), unchanged. Nothing when
     * none is lent or the application is not connected. The buffer is no longer lent afterwards, even when
     * the queue refused it (error line).
     */
    void imgSubQueueOutputFrame(uint32_t streamIndex, int64_t timestamp);

    /**
     * After an aborted request: asks the queue to take its buffers back, forgets the buffer lent for this
     * stream and the images of every stream, and drops every image that waits in the reader. Nothing but a
     * log line when the application is not connected. The queue keeps a forgotten buffer as lent until it is
     * disconnected: of an application that keeps one buffer, the eighth fill without any queued frame blocks
     * for ever.
     */
    void cancelImgSubFrames(uint32_t streamIndex);

    /**
     * The newest replacement for the stream, waiting about 100 ms for one that it has not had yet; then the
     * one it had last is handed out again. With merged streams a lower stream gets the newest replacement of
     * the highest one, when there is any, at once. outImage is written on success only and keeps the buffer
     * from being overwritten until the HAL and this object have let go of it. Null when there is no
     * replacement or no connection. The lock is let go during each pause of the wait.
     */
    android::sp<android::GraphicBuffer> imgSubAcquireFrame(uint32_t streamIndex,
                                                           std::shared_ptr<AImage>& outImage) VEL_UNCHECKED;

    /** Lets go of the HAL's reference to a replacement. Takes no lock. */
    void imgSubReleaseFrame(uint32_t streamIndex, std::shared_ptr<AImage> image);

    /** Whether the application's side may be used from now on. Takes no lock. */
    void setImgSubAppConnected(bool connected);

    /** Connects to the application's queue unless connected; true when usable. The caller holds mLock. */
    VEL_LOCAL bool connectImgSubProducer_locked() VEL_REQUIRES(mLock);

    /** Disconnects from the application's queue and drops it. The caller holds mLock. */
    VEL_LOCAL void disconnectImgSubProducer_locked() VEL_REQUIRES(mLock);

  private:
    friend struct ImgSubHelperTestAccess;

    static constexpr uint32_t kStreamCount = 4;
    static constexpr uint32_t kSlotCount = 7;

    VEL_LOCAL android::sp<android::GraphicBuffer> handOut_locked(uint32_t streamIndex,
                                                                 const std::shared_ptr<AImage>& image,
                                                                 std::shared_ptr<AImage>& outImage)
        VEL_REQUIRES(mLock);
    VEL_LOCAL bool mayWaitForImage_locked() const VEL_REQUIRES(mLock);
    VEL_LOCAL int32_t drainReader_locked() VEL_REQUIRES(mLock);
    VEL_LOCAL void fileImage_locked(AImage* image) VEL_REQUIRES(mLock);

    std::mutex mLock;
    android::sp<android::IGraphicBufferProducer> mImgSubProducer
        VEL_GUARDED_BY(mLock);  // the application's queue, null until connected
    android::sp<HidlProducer> mReaderProducer;
    AImageReader* mImageReader;  // owned
    uint32_t mOutputWidth;       // of outbound buffers
    uint32_t mOutputHeight;
    uint32_t mOutputFormat;                                      // platform pixel format
    int32_t mDequeuedSlots[kStreamCount] VEL_GUARDED_BY(mLock);  // slot lent to the HAL, -1 for none
    uint32_t mImageWidth;                                        // of one frame, in pixels
    uint32_t mImageHeight;
    std::atomic<bool> mImgSubAppConnected;               // written without mLock
    uint32_t mMaxStreamIndex VEL_GUARDED_BY(mLock) = 0;  // highest stream a buffer was asked for
    bool mMergeStreams;
    std::shared_ptr<AImage> mReceivedImages[kStreamCount] VEL_GUARDED_BY(mLock);  // newest of each stream
    std::shared_ptr<AImage> mHeldImages[kStreamCount] VEL_GUARDED_BY(mLock);      // last handed to the HAL
    VelChiDesktopHelper* mHelper;
    android::sp<android::GraphicBuffer> mImgSubBuffers[kSlotCount] VEL_GUARDED_BY(
        mLock);  // outbound, by slot
};
