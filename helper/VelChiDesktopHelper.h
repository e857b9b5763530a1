#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

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

namespace korvanta::hardware::camera::desktop::V2_0 {
struct ICameraDesktop;
enum class ClientType : uint8_t;
}  // namespace korvanta::hardware::camera::desktop::V2_0

/** RapidJSON's value type by declaration only, so that the HAL needs no RapidJSON to include this header. */
namespace rapidjson {
template <typename CharType>
struct UTF8;
class CrtAllocator;
template <typename BaseAllocator>
class MemoryPoolAllocator;
template <typename Encoding, typename Allocator>
class GenericValue;
}  // namespace rapidjson

struct AImageReader;  // the media library's

class CamDesktopCallback;
class MetadataHandler;
class VelImgSubHelper;
struct DesktopCaptureMetadata;

/** What kind of id VelChiDesktopHelper::isDesktopMode() is given. */
enum DesktopCamIdType : uint8_t {
    FWK_CAMERA_ID = 0,       // the id that the camera framework asked for
    OVERRIDE_CAMERA_ID = 1,  // the id that the HAL has open in its place
};

/**
 * The one object of the library: decides which camera the HAL really opens, and links the HAL to the desktop
 * service and through it to the desktop application and the camera service.
 *
 * Two kinds of camera id run through it. A framework id is what the camera framework asked to open; an
 * override id is what the HAL opens in its place. Ids are valid below 16; INVALID_CAMERA_ID stands for none.
 *
 * Owned by the process: built by the first getInstance(), destroyed by the static destructors at exit. Unless
 * a method says otherwise any thread may call it. Nothing throws; a failure gives the fallback that the
 * method names, and most are one log line.
 *
 * Locks: mSettingsLock guards the registry of cameras and is never held over a call to anyone; mServiceLock
 * guards the link to the service and is held across the calls through it, which have no time limit. Both are
 * plain mutexes. mSettingsLock comes first, and nobody waits for mServiceLock while holding it: a peer may
 * answer a call with a command that needs the registry. A method whose name ends in Locked expects its caller
 * to hold the lock; every other method takes what it needs and must be called with neither held.
 */
class VEL_EXPORT VelChiDesktopHelper {
  public:
    using ICameraDesktop = korvanta::hardware::camera::desktop::V2_0::ICameraDesktop;
    using ClientType = korvanta::hardware::camera::desktop::V2_0::ClientType;
    using HidlProducer = android::hardware::graphics::bufferqueue::V1_0::IGraphicBufferProducer;
    using JsonValue = rapidjson::GenericValue<rapidjson::UTF8<char>,
                                              rapidjson::MemoryPoolAllocator<rapidjson::CrtAllocator>>;
    using VendorTagCallback = std::function<bool(const char* section, const char* tag, unsigned int& id)>;

    // "No camera", in every field, argument and result.
    static const uint32_t INVALID_CAMERA_ID = 65535;

    /** The state of one framework camera. Guarded by mSettingsLock. */
    struct DesktopSettings {
        bool isDesktop = false;       // open in desktop mode; set and cleared by the camera events
        bool overrideAllowed = true;  // whether another camera may be opened in its place
        bool restartPending = false;  // a switch was detected: every open until the close announces it
        uint32_t defaultOverrideId = INVALID_CAMERA_ID;   // what a close returns requiredOverrideId to
        uint32_t requiredOverrideId = INVALID_CAMERA_ID;  // what the HAL must open next time; always valid
        uint32_t currentOverrideId = INVALID_CAMERA_ID;   // what the HAL has open, or INVALID_CAMERA_ID
    };

    /**
     * The single instance, never null. The first call builds it, which looks the desktop service up and, when
     * it is there, registers with it: it may block for these calls. Other first callers wait for it.
     */
    static VelChiDesktopHelper* getInstance();

    /**
     * Closes the link's image-substitution surface and drops what the object holds. Runs at process exit,
     * while detached threads may still live: they notice it and end.
     */
    virtual ~VelChiDesktopHelper();

    VelChiDesktopHelper(const VelChiDesktopHelper&) = delete;
    VelChiDesktopHelper(VelChiDesktopHelper&&) = delete;
    VelChiDesktopHelper& operator=(const VelChiDesktopHelper&) = delete;
    VelChiDesktopHelper& operator=(VelChiDesktopHelper&&) = delete;

    // --- The registry: which camera stands behind which id -------------------------------------------------
    // Queries take mSettingsLock for their whole work, make no call to a peer and allocate nothing.

    /** Whether the id is below 16. Takes no lock and logs nothing. */
    bool isValidCameraId(uint32_t id) const;

    /**
     * Whether the camera behind the id is in desktop mode. False, with an error line, for an invalid id;
     * false for an override id that no camera is open as; false, without a lock, for any other type.
     */
    bool isDesktopMode(uint32_t id, DesktopCamIdType type);

    /**
     * The lowest framework id whose camera is open as overrideId, or INVALID_CAMERA_ID (with an error line
     * when overrideId is out of range). The caller holds mSettingsLock.
     */
    uint32_t getOriginalFwkIdLocked(uint32_t overrideId) const VEL_REQUIRES(mSettingsLock);

    /**
     * The id open for fwkId, or INVALID_CAMERA_ID with an error line when fwkId is out of range or its camera
     * is closed. The caller holds mSettingsLock.
     */
    uint32_t getCurrentOverrideIdLocked(uint32_t fwkId) const VEL_REQUIRES(mSettingsLock);

    /** The id open for fwkId, else fwkId itself (with the error line of getCurrentOverrideIdLocked). */
    uint32_t getCurrentOverrideId(uint32_t fwkId);

    /** The framework id open as overrideId, else overrideId itself. */
    uint32_t getOriginalCameraId(uint32_t overrideId);

    /** Whether overrideId is open on behalf of another framework id. False when it is open as itself. */
    bool isCameraInOverride(uint32_t overrideId);

    /**
     * Whether the camera open as overrideId must be switched to another id. True marks its record, so that
     * each updateCameraIdOnHalOpen() until the close announces the finished restart. fwkId is always written:
     * the framework id found, or INVALID_CAMERA_ID. False with an error line when overrideId is out of range,
     * not open, or open for a camera whose override is not allowed. The same variable may be passed for both.
     */
    bool needsCameraIdSwitch(uint32_t overrideId, uint32_t& fwkId);

    /**
     * Whether the id override may apply to a client of this package name: false for names that begin with the
     * camera application's own package name, true for every other, the empty one included. Takes no lock.
     */
    bool isOverrideAllowedForPackage(const std::string& packageName);

    /**
     * Installs the resolver of vendor tags: given section and tag name, valid during the call only, it
     * returns true with the id set when the tag exists. To be called before captures flow; takes none of
     * this object's locks. The resolver must not call back into this object.
     */
    void setVendorTagCallback(VendorTagCallback callback);

    // --- Open, close and session restart -------------------------------------------------------------------

    /**
     * To be called when the HAL opens a camera. In: the framework id; out: the id to open in its place, which
     * is the framework id itself when the override is not allowed or the id is out of range (error line).
     * Records the id as open. When a restart is pending the application is told, from a detached thread, that
     * it is done. Never waits for a peer.
     */
    void updateCameraIdOnHalOpen(uint32_t& cameraId);

    /**
     * To be called when the HAL closes a camera, with its framework id. Forgets the open id, the requested
     * override and a pending restart; ends image substitution of a camera in desktop mode. An invalid id is
     * an error line and nothing else. Takes mSettingsLock for the record alone and never waits for
     * mServiceLock. To end a substitution it then makes one call to the service and one to the application's
     * queue, with mServiceLock held when that was free.
     */
    void onHalClose(uint32_t cameraId);

    /**
     * Asks for overrideId behind fwkId from the next open on; when the camera is open as another id the
     * camera service is asked, from a detached thread, to restart the session. Silently does nothing for
     * invalid ids, a camera whose override is not allowed, or the id already required. Never waits for a
     * peer.
     */
    void setRequiredOverrideId(uint32_t fwkId, uint32_t overrideId);

    /** Asks the camera service to restart the session of fwkId. Blocks for the call; takes mServiceLock. */
    void triggerSessionRestart(uint32_t fwkId);

    /** Tells the application that the restarted session is open. Blocks for the call; takes mServiceLock. */
    void sendSessionRestartDoneToApp(uint32_t originalId, uint32_t overrideId);

    // --- Capture metadata ----------------------------------------------------------------------------------

    /**
     * To be called for each capture request and each capture result, with the id that the HAL has open. Sends
     * the application the tags that its filter names, and waits for the answer without a time limit; writes
     * the tags of the answer into the capture, see MetadataHandler::convertToMetadata(). md belongs to the
     * caller, who finds *md.metadata replaced by a buffer to free when md.isMetadataReplaced is set. Nothing
     * changes without a service or an answer, or when the answer is no JSON (error line); an answer that is
     * no object ends the process. Tags that hold numbers without a JSON form are left out (error line). Takes
     * mSettingsLock, then mServiceLock for the exchange, never both; any capture thread may call.
     */
    void handleCaptureMetadata(DesktopCaptureMetadata& md, unsigned cameraId);

    // --- Frames for the application ------------------------------------------------------------------------
    // The HAL calls these from one thread, in order: connectProducer() once, then for each frame
    // getFrameToFill() and queueFilledFrame(), at the end disconnectProducer(). Calls into the application's
    // queue have no time limit.

    /**
     * Connects to the application's buffer queue for frames of the given size (pixels) and platform pixel
     * format, which are remembered for later connections. True when a queue is connected afterwards, also
     * when it was before or refuses the connection; false, with an error line, without a service (nothing is
     * remembered then), and false when the application has no surface yet. Takes mServiceLock for the whole
     * call.
     */
    bool connectProducer(uint32_t width, uint32_t height, uint32_t format);

    /**
     * Disconnects from the application's queue and drops it. A lent buffer stays on record. Takes no lock.
     */
    void disconnectProducer();

    /**
     * Lends the HAL one buffer of the application's queue, to be written and given back by
     * queueFilledFrame(). Null when there is none this time: not connected (one attempt is made when a size
     * is known, and a buffer comes with the next call), no usable slot, or a buffer that its last reader has
     * not let go of within 100 ms. A queue that fails is disconnected and connected anew. Waits without limit
     * while the application holds every buffer. May take mServiceLock.
     */
    android::sp<android::GraphicBuffer> getFrameToFill();

    /**
     * Hands the lent buffer to the application with its time stamp (ns), unchanged. Nothing when none is
     * lent. The buffer is no longer lent afterwards, even when the queue refused it (error line). Takes no
     * lock.
     */
    void queueFilledFrame(int64_t timestamp);

    /**
     * The reader's input surface as a HIDL producer for a peer; the caller owns the reference. Null, with an
     * error line, for a null reader or one without a window. Takes no lock and may be called from any thread.
     */
    android::sp<HidlProducer> getIGraphicBufferProducer(AImageReader* reader);

    // --- Image substitution --------------------------------------------------------------------------------

    /**
     * Tells the application that the HAL is ready for image substitution. Blocks for the call; takes
     * mServiceLock.
     */
    void sendImgSubHalReadyToApp();

    /**
     * To be called when the HAL's substitution node goes away. Ends image substitution and clears the
     * service's surface, unless somebody besides this object still holds the helper: then nothing changes.
     * Takes mServiceLock, and may make one call to the service and one to the application's queue under it.
     */
    void ImgSubNodeDisconnect();

    // --- The service link ----------------------------------------------------------------------------------

    /**
     * Connects to the desktop service unless connected: one look-up that does not wait for the service to
     * start; when found, the callback and the death recipient are registered. True when connected afterwards.
     * The caller holds mServiceLock (the constructor, which nobody else sees yet, does not).
     */
    VEL_LOCAL bool connectToServiceLocked() VEL_REQUIRES(mServiceLock);

    /** Ends the death registration and drops the proxy. The caller holds mServiceLock. */
    VEL_LOCAL void disconnectFromServiceLocked() VEL_REQUIRES(mServiceLock);

    /**
     * Drops the dead proxy and starts a detached thread that tries to connect three times, 500 ms apart.
     * Takes mServiceLock, so it waits for a call that is under way.
     */
    VEL_LOCAL void handleDeathNotification();

    /**
     * Sends a command to a peer and returns its reply; empty, with an error line, when there is no service or
     * the call fails. Connects when needed. Holds mServiceLock across the call, which has no time limit.
     */
    VEL_LOCAL std::string setCommandTo(ClientType type, const std::string& command);

    /**
     * The surface that the service holds for a peer, or null when there is none, no service, or the call
     * fails. Connects when needed. Holds mServiceLock across the call.
     */
    VEL_LOCAL android::sp<HidlProducer> getSurface(ClientType type);

    // --- Commands from the peers ---------------------------------------------------------------------------

    /**
     * Carries out one command text, a JSON object, and returns the reply text: "PARSE_ERR" for text that is
     * no JSON, the answer to a configuration or a query, else "OK_HAL", failed events and unknown keys
     * included. Runs on the thread that delivers the command; of this class's locks it takes mSettingsLock at
     * most, so it may run while an outgoing command waits.
     */
    VEL_LOCAL std::string handleCommand(const std::string& command);

    /** Handles the "event" member: a camera was opened or closed by the framework. */
    VEL_LOCAL void handleEventMessage(const JsonValue& event);

    /** Handles the "general" member: the application wants another camera behind a framework id. */
    VEL_LOCAL void handleGeneralCommand(const JsonValue& general);

    /** Answers the "get" member with a JSON text: the id asked for, or an object with "error". */
    VEL_LOCAL std::string handleGetCommand(const JsonValue& get);

    /**
     * Handles the "imgsub-configure-stream" member: ends an earlier substitution, creates the reader for the
     * application's frames, gives its producer to the service and creates the helper. Returns what the
     * application is to produce, as a JSON text, or a plain text that says what is wrong: with a member that
     * cannot be read nothing has changed, with any later failure no substitution is configured. Takes no lock
     * of this class, since the command may arrive inside a call that holds mServiceLock.
     */
    VEL_LOCAL std::string handleImgSubStreamConfig(const JsonValue& config);

  private:
    friend struct DesktopHelperTestAccess;

    static constexpr uint32_t kCameraCount = 16;
    static constexpr uint32_t kAppSlotCount = 7;

    VEL_LOCAL VelChiDesktopHelper();

    VEL_LOCAL void fillDesktopSettings() VEL_REQUIRES(mSettingsLock);
    VEL_LOCAL void setImgSubSurface(const android::sp<HidlProducer>& producer);
    VEL_LOCAL bool replaceImgSubHelper(const std::shared_ptr<VelImgSubHelper>& next);
    VEL_LOCAL void setServiceProxy(const android::sp<ICameraDesktop>& proxy);
    VEL_LOCAL android::sp<ICameraDesktop> serviceProxy() const;
    VEL_LOCAL void reconnectToService();
    VEL_LOCAL void handleCameraOpenEvent(const JsonValue& event);
    VEL_LOCAL void handleCameraClosedEvent(const JsonValue& event);
    VEL_LOCAL bool isAnyCameraDesktopLocked() const VEL_REQUIRES(mSettingsLock);
    VEL_LOCAL std::string answerOverrideId(const JsonValue& get);
    VEL_LOCAL uint32_t overrideIdForClient(uint32_t originalId, const std::string& clientName);

    // The order of the members is fixed: the HAL reads mImgSubHelper at its place.
    std::mutex mServiceLock;                     // the service proxy and the calls through it
    android::sp<ICameraDesktop> mCameraDesktop;  // null while not connected; copied through serviceProxy()
    uint32_t mAppWidth = 0;                      // of the application's buffers, in pixels
    uint32_t mAppHeight = 0;
    uint32_t mAppFormat = 0;        // platform pixel format
    int32_t mAppDequeuedSlot = -1;  // slot lent to the HAL, -1 for none
    std::mutex mSettingsLock;       // every field of every record below
    DesktopSettings mDesktopSettings[kCameraCount] VEL_GUARDED_BY(mSettingsLock);  // by framework id
    android::sp<android::GraphicBuffer> mAppBuffers[kAppSlotCount];
    android::sp<CamDesktopCallback> mCallback;
    android::sp<android::IGraphicBufferProducer> mAppProducer;
    std::unique_ptr<MetadataHandler> mMetadataHandler;

  public:
    /**
     * The image-substitution helper while a stream is configured, else null. The library replaces it from
     * another thread, so the HAL takes its own reference with std::atomic_load(&helper->mImgSubHelper), uses
     * that for the frame and drops it promptly. The lock behind that call is the C++ runtime's, so the HAL
     * and this library must share one.
     */
    std::shared_ptr<VelImgSubHelper> mImgSubHelper;

  private:
    // Stream size by frame number modulo 32. Nothing in the library fills it: it is there for a later source.
    std::map<int, std::pair<int, int>> mMaxStreamSizes;
};
