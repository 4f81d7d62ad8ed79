// JSON text as it goes over the sockets: one line, strings as bytes.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>
#include <string_view>

namespace extractor {

/// The text of `value`, without a newline. Bytes that are not UTF-8 stay as they are, because file names are bytes.
std::string ToText(const Json::Value& value);

/// The value of `text`; nothing if it is not exactly one JSON value. Never throws for what the text holds.
std::optional<Json::Value> FromText(std::string_view text);

}  // namespace extractor
