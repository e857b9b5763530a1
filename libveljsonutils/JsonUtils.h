#pragma once

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "RapidJson.h"

namespace android {

/**
 * Typed, logged readers over a parsed JSON value, serialisation and deep merge.
 *
 * Stateless: operations on different documents may run on any threads; callers that share a document
 * serialise access themselves. Nothing blocks, locks or throws of its own accord (only a failed allocation in
 * a container throws), and no operation owns a document: pointers handed out live as long as the document
 * does.
 *
 * Result codes of the readers, negative errno values:
 *     0     success
 *   -22     -EINVAL, the root is not an object or the value has another type
 *    -2     -ENOENT, no such member (not logged), or an index was given and the member is not an array
 *   -75     -EOVERFLOW, the index is not below the array's size
 * A negative index reads the member itself; any other index reads that element of the member, an array.
 * Failures are logged under the tag "JsonUtils". A null name is not allowed anywhere.
 */
class JsonUtils {
  public:
    using Value = rapidjson::Value;

    /**
     * Whether the object has the member; false for a JSON null. Any other value that is not an object breaks
     * RapidJSON's precondition and ends the process.
     */
    static bool checkExists(const Value& obj, const char* name);
    /** As above; the name ends at its first NUL. */
    static bool checkExists(const Value& obj, const std::string& name);

    /**
     * The member of that name (the first one) or its element, with err 0. With any other err, one of the
     * result codes, the value returned is valid but means nothing.
     */
    static const Value& getValue(int& err, const Value& root, const char* name, int index);

    /**
     * Each sets out to false or 0 first, so that this is what out holds after any failure.
     * The integers accept no real number, not even 2.0; long long accepts the whole signed 64-bit range, the
     * others the signed 32-bit range, of which the two narrow ones store the low 16 and 8 bits unchecked.
     * float and double accept every number; a number beyond float's range becomes an infinity.
     */
    static int parseValue(const Value& root, const char* name, bool& out, int index);
    static int parseValue(const Value& root, const char* name, int& out, int index);
    static int parseValue(const Value& root, const char* name, unsigned short& out, int index);
    static int parseValue(const Value& root, const char* name, unsigned char& out, int index);
    static int parseValue(const Value& root, const char* name, long long& out, int index);
    static int parseValue(const Value& root, const char* name, float& out, int index);
    static int parseValue(const Value& root, const char* name, double& out, int index);

    /**
     * Each leaves out untouched after any failure.
     * A copy of the whole string, embedded NULs included.
     */
    static int parseValue(const Value& root, const char* name, std::string& out, int index);
    /** The document's own text, not a copy. */
    static int parseValue(const Value& root, const char* name, const char*& out, int index);
    /** The address of a value that is an object. */
    static int parseValue(const Value& root, const char* name, const Value** out, int index);

    /**
     * The addresses of an array's objects, in order. out is cleared first. A value that is not an array gives
     * 0 and nothing; an element that is not an object gives -22 and keeps the addresses before it.
     */
    static int parseValue(const Value& root, const char* name, std::vector<const Value*>& out, int index);

    /**
     * The pairs of an array of two-element arrays of numbers, in order. out is cleared first. A value that is
     * not an array gives 0 and nothing; an element that is not a two-element array is logged and skipped; an
     * entry that is not a number gives -22 and keeps the pairs before it. With an int as second entry, a
     * number there that is no 32-bit integer ends the process.
     */
    static int parseValue(const Value& root, const char* name, std::vector<std::pair<float, float>>& out,
                          int index);
    static int parseValue(const Value& root, const char* name, std::vector<std::pair<float, int>>& out,
                          int index);

    /**
     * Adds the [key, value] entries of an array to out, which is not cleared; the first value of a key stays,
     * also over what out held before. A value that is not an array, an entry that is not a two-element array
     * and an entry whose halves are not both numbers give -22. A key that is no 64-bit integer ends the
     * process.
     */
    static int parseValue(const Value& root, const char* name, std::unordered_map<long long, double>& out,
                          int index);

    /**
     * Writes element i of the array to out[i], which the caller makes large enough for all of them. A value
     * that is not an array gives 0 and leaves out untouched; a bad element gives -22 with those before it
     * written.
     */
    static int parseIntArr(const Value& root, const char* name, int* out, int index);
    static int parseFloatArr(const Value& root, const char* name, float* out, int index);

    /**
     * The compact JSON text. It ends early at a number that is not finite. Recurses once per level of
     * nesting: not for values that a peer may nest at will.
     */
    static std::string toString(const Value& v);

    /**
     * Deep merge of overrides into base: absent members are appended, objects merge, anything else is
     * replaced whole. Returns base, or overrides when only base is not an object. Values and names are moved,
     * so overrides is consumed and is only to be destroyed; alloc must be the allocator of both, or the
     * merged object would point into the document of overrides.
     */
    static Value& overrideJson(Value& overrides, Value& base, rapidjson::MemoryPoolAllocator<>& alloc);
};

}  // namespace android
