// Camera metadata buffers: one block of memory that holds entries, each a tag with an array of values of the
// tag's type. The interface is that of Android's libcamera_metadata.
//
// Statuses are 0 for success, 1 for any error and -ENOENT for a tag that is not in a buffer, unless a call
// says otherwise. Nothing is locked: a buffer belongs to one thread at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <system/camera_metadata_tags.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    TYPE_BYTE = 0,
    TYPE_INT32 = 1,
    TYPE_FLOAT = 2,
    TYPE_INT64 = 3,
    TYPE_DOUBLE = 4,
    TYPE_RATIONAL = 5,
    NUM_TYPES
};

enum { CAMERA_METADATA_VALIDATION_ERROR = 1, CAMERA_METADATA_VALIDATION_SHIFTED = 2 };

#define CAMERA_METADATA_INVALID_VENDOR_ID UINT64_MAX

typedef struct camera_metadata_rational {
    int32_t numerator;
    int32_t denominator;
} camera_metadata_rational_t;

/** An entry as found in a buffer; the data points into the buffer and is good until the buffer changes. */
typedef struct camera_metadata_entry {
    size_t index;
    uint32_t tag;
    uint8_t type;
    size_t count;  // of values, not of bytes
    union {
        uint8_t* u8;
        int32_t* i32;
        float* f;
        int64_t* i64;
        double* d;
        camera_metadata_rational_t* r;
    } data;
} camera_metadata_entry_t;

typedef struct camera_metadata_ro_entry {
    size_t index;
    uint32_t tag;
    uint8_t type;
    size_t count;
    union {
        const uint8_t* u8;
        const int32_t* i32;
        const float* f;
        const int64_t* i64;
        const double* d;
        const camera_metadata_rational_t* r;
    } data;
} camera_metadata_ro_entry_t;

struct camera_metadata;
typedef struct camera_metadata camera_metadata_t;

// Per section: the first tag, and one past the last; and the section's name, "android.sensor.info" for
// example.
extern unsigned int camera_metadata_section_bounds[ANDROID_SECTION_COUNT][2];
extern const char* camera_metadata_section_names[ANDROID_SECTION_COUNT];
// Per type: the bytes of a value, and the type's name.
extern const size_t camera_metadata_type_size[NUM_TYPES];
extern const char* camera_metadata_type_names[NUM_TYPES];

/**
 * A new empty buffer with room for the given number of entries and bytes of data, either may be zero; null
 * when there is no memory for it. The caller frees it with free_camera_metadata. A size that does not fit in
 * 32 bits is refused where size_t has more; where it has 32 bits the size wraps, as on the device, and the
 * block is smaller than it says.
 */
camera_metadata_t* allocate_camera_metadata(size_t entry_capacity, size_t data_capacity);
/** A new buffer with the entries of the given one and exactly the room that they need; null for null. */
camera_metadata_t* clone_camera_metadata(const camera_metadata_t* src);
/** Frees a buffer; null is fine. */
void free_camera_metadata(camera_metadata_t* metadata);

/** These do not accept null. */
size_t get_camera_metadata_size(const camera_metadata_t* metadata);  // of the whole block, in bytes
size_t get_camera_metadata_entry_count(const camera_metadata_t* metadata);
size_t get_camera_metadata_entry_capacity(const camera_metadata_t* metadata);
size_t get_camera_metadata_data_count(const camera_metadata_t* metadata);  // in bytes, padding included
size_t get_camera_metadata_data_capacity(const camera_metadata_t* metadata);

/**
 * Checks the layout of a buffer and of each of its entries. 0 when all is well,
 * CAMERA_METADATA_VALIDATION_SHIFTED when all is well but the block does not start at a multiple of 8, else
 * CAMERA_METADATA_VALIDATION_ERROR. The block may not be larger than the expected size, when that is given.
 */
int validate_camera_metadata_structure(const camera_metadata_t* metadata, const size_t* expected_size);

/**
 * Appends all entries of src to dst, which must have room for them. Two buffers of different vendors do not
 * mix.
 */
int append_camera_metadata(camera_metadata_t* dst, const camera_metadata_t* src);

/**
 * The bytes that the values take in a buffer's data area: a multiple of 8, or 0 when they fit in the
 * entry itself (4 bytes) or the type is unknown.
 */
size_t calculate_camera_metadata_entry_data_size(uint8_t type, size_t data_count);

/**
 * Appends an entry; the tag's type says how wide the values are. Fails for an unknown tag and when there is
 * no room. A tag that is present already gets a second entry, which find never reaches in an unsorted buffer.
 */
int add_camera_metadata_entry(camera_metadata_t* dst, uint32_t tag, const void* data, size_t data_count);

/** Finds the first entry of a tag: 0, -ENOENT, or 1 for a null buffer. */
int find_camera_metadata_entry(camera_metadata_t* src, uint32_t tag, camera_metadata_entry_t* entry);
int find_camera_metadata_ro_entry(const camera_metadata_t* src, uint32_t tag,
                                  camera_metadata_ro_entry_t* entry);

/** The entry at an index: 0, or 1 when there is none. */
int get_camera_metadata_ro_entry(const camera_metadata_t* src, size_t index,
                                 camera_metadata_ro_entry_t* entry);

/**
 * Replaces the values of the entry at an index, in the type that the entry has. Fails when the buffer has no
 * room for them. The updated entry is stored when asked for. An update to zero values leaves the entry's
 * offset as it was, and validate then finds the buffer faulty unless that happened to be zero.
 */
int update_camera_metadata_entry(camera_metadata_t* dst, size_t index, const void* data, size_t data_count,
                                 camera_metadata_entry_t* updated_entry);

/** Sorts the entries by tag; find is quicker in a sorted buffer, until an entry is added. */
int sort_camera_metadata(camera_metadata_t* dst);

/**
 * The section and name of a tag, null when it is unknown; and its type, -1 when it is unknown. The section is
 * that of any tag in a known one. What a vendor tag is called and holds is asked of the operations given to
 * set_camera_metadata_vendor_ops, and passed on unchanged.
 */
const char* get_camera_metadata_section_name(uint32_t tag);
const char* get_camera_metadata_tag_name(uint32_t tag);
int get_camera_metadata_tag_type(uint32_t tag);

#ifdef __cplusplus
}
#endif
