// JSON text as it goes over sockets and into lists: one line, strings as bytes.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>
#include <string_view>

namespace service {

/// What the messages of daemons need; a parser that follows deeper ones recurses as deep.
constexpr int kUsualNesting = 32;

/// The text of `value`, without a newline, keys sorted. Bytes that are not UTF-8 stay as they are, because file names
/// are bytes. Any thread.
std::string ToText(const Json::Value& value);

/// The value of `text`; nothing if it is not exactly one JSON value, has comments, or is nested deeper than
/// `deepest_nesting`. `problem` then says why, if it is given. Never throws for what the text holds. Any thread.
std::optional<Json::Value> FromText(std::string_view text, int deepest_nesting = kUsualNesting,
                                    std::string* problem = nullptr);

}  // namespace service
