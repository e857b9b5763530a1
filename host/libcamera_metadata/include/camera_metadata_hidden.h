#pragma once

#ifndef CAMERA_METADATA_INVALID_VENDOR_ID
#error "include <system/camera_metadata.h> first: the device's header of this name needs that"
#endif

#include <system/camera_vendor_tags.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Installs the process-wide vendor tag operations, null to remove them; returns 0. The operations stay the
 * caller's and must outlive their use. Nothing is locked: install them before other threads use vendor tags.
 */
int set_camera_metadata_vendor_ops(const vendor_tag_ops_t* ops);

#ifdef __cplusplus
}
#endif
