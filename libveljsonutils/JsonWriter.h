#pragma once

#include <string>

#include "RapidJson.h"

namespace android {

// Replaces out by the compact JSON text of the value. False when the value holds a number that is not finite,
// which JSON cannot express; out then holds the text before that number. Only out allocates when the text is
// below about 12 KB. Recurses once per level of nesting.
bool writeJson(const rapidjson::Value& value, std::string& out);

}  // namespace android
