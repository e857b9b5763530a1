#pragma once

/**
 * The words of the JSON messages, in both directions. Arrays, not pointers: RapidJSON then refers to the text
 * itself and knows its length.
 */
namespace keys {

// Top level of a command.
constexpr char kFilterRequests[] = "filter-requests";
constexpr char kFilterResults[] = "filter-results";
constexpr char kSurfaceConfig[] = "surface-config";
constexpr char kImgSubConfigureStream[] = "imgsub-configure-stream";
constexpr char kEvent[] = "event";
constexpr char kGeneral[] = "general";
constexpr char kGet[] = "get";

// Members of an event.
constexpr char kType[] = "type";
constexpr char kCameraOpen[] = "cameraOpen";
constexpr char kCameraClosed[] = "cameraClosed";
constexpr char kSessionRestartDone[] = "sessionRestartDone";
constexpr char kId[] = "id";
constexpr char kIsDesktop[] = "isDesktop";
constexpr char kPackageName[] = "packageName";

// Members of a query and of its answer.
constexpr char kWhat[] = "what";
constexpr char kClientName[] = "clientName";
constexpr char kError[] = "error";

// Camera ids.
constexpr char kOriginalId[] = "originalId";
constexpr char kOverrideId[] = "overrideId";
constexpr char kCameraIds[] = "cameraIds";

// The request to restart a session.
constexpr char kRestartNeeded[] = "restartNeeded";
constexpr char kCameraId[] = "cameraId";

// Capture metadata for the application.
constexpr char kFrameNumber[] = "frame_number";
constexpr char kRequest[] = "request";
constexpr char kResult[] = "result";

// The configuration of image substitution and its answer.
constexpr char kVersion[] = "version";
constexpr char kImageWidth[] = "image-width";
constexpr char kImageHeight[] = "image-height";
constexpr char kConsumerUsage[] = "hal-consumer-usage";
constexpr char kConsumerBufferCount[] = "hal-consumer-buffer-count";
constexpr char kConsumerFormat[] = "hal-consumer-v4l2-format";
constexpr char kMergeStreams[] = "hal-merge-streams";
constexpr char kAppConsumerWidth[] = "app-consumer-width";
constexpr char kAppConsumerHeight[] = "app-consumer-height";
constexpr char kAppConsumerBufferCount[] = "app-consumer-buffer-count";
constexpr char kAppConsumerFormat[] = "app-consumer-v4l2-format";
constexpr char kHeaderVersion[] = "using-private-header-version";

// The notice that the HAL is ready for image substitution.
constexpr char kImgSubEvent[] = "ImgSubEvent";
constexpr char kImgSubHalReady[] = "ImgSubHalReady";
constexpr char kMaxWidth[] = "max-width";
constexpr char kMaxHeight[] = "max-height";

}  // namespace keys
