#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

#include "DesktopCaptureMetadata.h"
#include "RapidJson.h"
#include "ThreadSafety.h"

/**
 * Turns the metadata of a capture into a JSON object and back, and keeps the two filters that say which tags
 * are exported: one for requests, one for results.
 *
 * The JSON form is an object with a member per tag: the key is the full name ("android.sensor.timestamp"),
 * the value an array of the entry's values, even of a single one. Bytes, int32 and int64 are integers, floats
 * and doubles are numbers, a rational is an array of numerator and denominator.
 *
 * VelChiDesktopHelper owns the one handler, which lives as long as the process. The filters may be set, and
 * captures converted, on any threads at once; a capture and its buffer belong to one thread at a time. mLock
 * guards the filters, and is held while the vendor tag callback runs: the callback must not call the handler.
 * No other lock is taken within mLock but that of the callback's copy, which guards just the copying. Nothing
 * blocks longer than that. Failures are logged at ERROR under the tag "MetadataHandler" and skipped tag by
 * tag.
 */
class MetadataHandler {
  public:
    using VendorTagCallback = std::function<bool(const char* section, const char* tag, unsigned& id)>;

    /** Starts with empty filters and without a vendor tag callback. */
    MetadataHandler() = default;
    virtual ~MetadataHandler();
    MetadataHandler(const MetadataHandler&) = delete;
    MetadataHandler& operator=(const MetadataHandler&) = delete;

    /**
     * Replaces what resolves a vendor tag to its id; an empty function leaves vendor tags unresolved. It gets
     * the section and the tag's name within it, both good during the call only, and returns whether the tag
     * exists. Takes neither mLock nor any lock while user code runs. A look-up under way ends with the old
     * callback.
     */
    void setVendorTagCallback(VendorTagCallback callback);

    /**
     * Replaces a filter by the tags that the list names. Unknown tags are logged, elements that are no
     * strings are skipped; a list that is no array empties the filter. A name ends at its first NUL. Takes
     * mLock throughout, so that an export sees the old filter or the new one.
     */
    void setRequestsOfInterest(const rapidjson::Value& list) VEL_UNCHECKED;
    void setResultsOfInterest(const rapidjson::Value& list) VEL_UNCHECKED;

    /**
     * Appends to out, an object, a member for each tag of the capture's filter that its buffer holds; a null
     * buffer holds none. A tag of unknown type gets an empty array; an entry whose values are narrower than
     * its tag's type is logged and left out. Keys and arrays are made with alloc. Numbers that are not finite
     * are exported as they are, although JSON has no text for them. Takes mLock throughout.
     */
    void convertFromMetadata(DesktopCaptureMetadata& md, rapidjson::Value& out,
                             rapidjson::Document::AllocatorType& alloc);

    /**
     * Writes every member of in to the capture's metadata, in order, as setMetadataEntry does; one that fails
     * does not stop the others. An in that is no object, or an element of the wrong kind (no integer, or none
     * that fits, for an int32, int64 or half of a rational; no integer for a byte; no number for a float or
     * double), ends the process in every build type; a rational that is no pair just fails its tag. Of a
     * byte's integer the low 8 bits count, and a number that no float can hold becomes an infinity. Of the
     * buffers that it stores in *md.metadata only the last is left, for the caller to free when
     * md.isMetadataReplaced is set; the buffer that was there before is never freed. Takes mLock for each
     * name.
     */
    void convertToMetadata(DesktopCaptureMetadata& md, rapidjson::Value& in);

    /**
     * Finds the id of a tag by its full name. The section is the standard one with the longest name that the
     * given name starts with, whatever the separator after it; a name that starts with none is a vendor tag,
     * its section ends at the last dot. False, with id untouched, for null arguments and unknown tags; only
     * failures with vendor tags are logged. The caller holds mLock when filters are in use.
     */
    bool findMetadataTagId(const char* name, unsigned* id);

    /**
     * Sets a tag's values: updates an entry that is there in place, without ever making room for more; else
     * adds one, in a new buffer with exactly the room that is needed in addition. The new buffer is stored in
     * *md.metadata and md.isMetadataReplaced set, even when the adding itself then fails; the old buffer is
     * not freed, nor is a new one that does not validate, which is not stored either. data holds count values
     * of the tag's type and has room for 8 bytes for each, since an entry may be wider than its tag. False
     * after any failure, which is logged. Takes no lock.
     */
    bool setMetadataEntry(DesktopCaptureMetadata& md, unsigned tag, void* data, unsigned count);

  private:
    using TagIds = std::unordered_map<std::string, uint32_t>;  // by full name, as the application spelled it

    void setTagsOfInterest(TagIds& filter, const rapidjson::Value& list);
    bool findVendorTag(const char* name, size_t sectionLength, unsigned* id) const;
    bool resolveTagId(const std::string& name, unsigned* id);
    void convertMember(DesktopCaptureMetadata& md, const std::string& name, const rapidjson::Value& values);

    std::mutex mLock;
    TagIds mRequestsOfInterest VEL_GUARDED_BY(mLock);
    TagIds mResultsOfInterest VEL_GUARDED_BY(mLock);
    VendorTagCallback mVendorTagCallback;  // guarded by a lock of its own
};
