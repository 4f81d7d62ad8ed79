// Reads JSON that clients send; the refusal is the answer.
#pragma once

#include <json/value.h>

#include <string_view>

namespace nimoelasticd {

/// As service::FromText, nested a thousand deep at most. Throws Refusal kMalformedRequest.
Json::Value ReadJson(std::string_view text);

}  // namespace nimoelasticd
