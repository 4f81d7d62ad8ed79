// JSON as it crosses the socket and lies in the registry: one line, bytes as they are.
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

namespace nimoelasticd {

/// One line without blanks, keys sorted; bytes above 0x1f are not touched, because names of files are bytes.
std::string WriteJson(const Json::Value& value);

/// Reads exactly one JSON value; comments and trailing text are refused. Throws Refusal kMalformedRequest.
Json::Value ReadJson(std::string_view text);

}  // namespace nimoelasticd
