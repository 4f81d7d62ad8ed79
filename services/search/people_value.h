// Values that people write in queries: sizes, dates, ranges of them.
#pragma once

#include <json/value.h>

#include <chrono>
#include <optional>
#include <string>

namespace search {

enum class ValueUnit {
  kNumber,
  kBytes,  ///< with k, M, G, T for 1024 and its powers
  kTime,   ///< seconds since 1970, written as 2021, 2021-05, 2021-05-03, today, yesterday, or 7d for the last 7 days
};

/// Bounds; those that are absent do not bound.
struct ValueRange {
  std::optional<Json::Value> from;   ///< included
  std::optional<Json::Value> to;     ///< included
  std::optional<Json::Value> above;  ///< excluded
  std::optional<Json::Value> below;  ///< excluded
};

/// Reads VALUE, >VALUE, >=VALUE, <VALUE, <=VALUE, VALUE..VALUE, VALUE.., ..VALUE. A date stands for its whole day,
/// month or year in local time. Throws Error kBadQuery.
ValueRange ReadRange(const std::string& text, ValueUnit unit, std::chrono::system_clock::time_point now);

/// true, yes, 1, false, no, 0. Throws Error kBadQuery.
bool ReadTruth(const std::string& text);

}  // namespace search
