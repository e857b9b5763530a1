#pragma once

#include <system/camera_metadata.h>

/** What is known of a standard tag besides its id. */
struct TagInfo {
    const char* name;  // within its section
    uint8_t type;
};

// For each section its tags, in the order of their ids from the section's start bound on.
extern const TagInfo* const kTagInfo[ANDROID_SECTION_COUNT];
