#pragma once

#include <stddef.h>

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

// The one door to RapidJSON. Its assertions guard against reading a value as what it is not, so they stay
// active in every build type; since RapidJSON is all templates, every file must see the same configuration.

#if defined(RAPIDJSON_RAPIDJSON_H_) || defined(RAPIDJSON_ASSERT)
#error "RapidJson.h must come first: RapidJSON was included or configured before it"
#endif
#if defined(RAPIDJSON_USE_MEMBERSMAP) || defined(RAPIDJSON_HAS_STDSTRING)
#error "members keep their order and names are plain C strings: neither option may be set"
#endif

namespace android {

/** Logs the broken precondition at FATAL priority under the tag "JsonUtils" and ends the process. */
[[noreturn]] void rapidJsonAssertFailed(const char* expression, const char* file, int line);

}  // namespace android

#define RAPIDJSON_ASSERT(x) \
    ((x) ? static_cast<void>(0) : ::android::rapidJsonAssertFailed(#x, __FILE__, __LINE__))

// Values hold 64-bit numbers, which a 32-bit device may read with instructions that need this alignment;
// RapidJSON itself would align to 4 bytes there. A pool on a caller's buffer therefore needs a size that 8
// divides.
#define RAPIDJSON_ALIGN(x) (((x) + static_cast<size_t>(7)) & ~static_cast<size_t>(7))

// RapidJSON compares pointers that are still null by way of an offset, which only the sanitizer minds. The
// standard headers it uses are included above, out of the attribute's reach.
#ifdef __clang__
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#ifdef __clang__
#pragma clang attribute pop
#endif
