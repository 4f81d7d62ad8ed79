// Parsing JSON text in place.
#pragma once

#include <json/json.h>

namespace orbisk {

/// Parses the bytes from `begin` up to `end` by the rules of fromString, without copying them.
bool ParseJson(const char* begin, const char* end, Json::Value& value);

}  // namespace orbisk
