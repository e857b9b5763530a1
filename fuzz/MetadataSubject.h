#pragma once

#include "CameraMetadata.h"
#include "JsonMessage.h"

class MetadataHandler;

// What the fuzzers of capture metadata share.

/** Vendor tags with short names for every type, and one that no type fits. */
const VendorTags& vendorTags();

/** A buffer with three entries, vendor tags among them, and hardly room for more. */
const CameraMetadata& filledBuffer();

/** What an application's answer holds, as the metadata handler will see it. */
struct ReplyContents {
    /** `object` must be one. */
    ReplyContents(MetadataHandler& handler, const rapidjson::Value& object);

    bool isReadable = true;      // without ending the process: an element of the wrong kind does, by contract
    bool hasDuplicates = false;  // of one tag
    bool hasEmptyArray = false;
    android::JsonMessage names;  // an array of all names
};
