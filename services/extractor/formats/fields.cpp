// Writes fields.
#include "services/extractor/formats/fields.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <optional>

#include "services/extractor/formats/limits.h"
#include "services/extractor/formats/text_sink.h"

namespace extractor {
namespace {

std::string Shape(std::string_view value) {
  TextSink sink(kMaxFieldBytes);
  sink.Append(value);
  const std::string text = sink.Take();
  const std::size_t begin = text.find_first_not_of(" \t\n");
  return begin == std::string::npos ? std::string() : text.substr(begin);
}

bool HasLine(const std::string& lines, const std::string& line) {
  std::size_t at = 0;
  while (at <= lines.size()) {
    const std::size_t end = std::min(lines.find('\n', at), lines.size());
    if (lines.compare(at, end - at, line) == 0) {
      return true;
    }
    at = end + 1;
  }
  return false;
}

/// Takes a number of at most `digits` digits from the front of `text`.
std::optional<int> TakeNumber(std::string_view& text, std::size_t digits) {
  int value = 0;
  const std::string_view head = text.substr(0, digits);
  const auto [end, error] = std::from_chars(head.data(), head.data() + head.size(), value);
  if (error != std::errc() || value < 0) {
    return std::nullopt;
  }
  text.remove_prefix(static_cast<std::size_t>(end - head.data()));
  return value;
}

bool TakeOneOf(std::string_view& text, std::string_view characters) {
  if (text.empty() || characters.find(text.front()) == std::string_view::npos) {
    return false;
  }
  text.remove_prefix(1);
  return true;
}

/// Seconds that the zone at the front of `text` is ahead of UTC; 0 where there is none.
int ZoneSeconds(std::string_view text) {
  const bool behind = !text.empty() && text.front() == '-';
  if (!TakeOneOf(text, "+-")) {
    return 0;
  }
  const int hours = TakeNumber(text, 2).value_or(0);
  TakeOneOf(text, ":'");
  const int minutes = TakeNumber(text, 2).value_or(0);
  const int seconds = (hours * 60 + minutes) * 60;
  return behind ? -seconds : seconds;
}

/// The seconds within the day, with the zone taken off.
std::optional<int> TakeTime(std::string_view text) {
  int seconds = 0;
  for (const int unit : {3600, 60, 1}) {
    const std::optional<int> part = TakeNumber(text, 2);
    if (!part || *part > 60) {
      return std::nullopt;
    }
    seconds += *part * unit;
    if (!TakeOneOf(text, ":")) {
      break;
    }
  }
  if (TakeOneOf(text, ".,")) {
    TakeNumber(text, 9);
  }
  return seconds - ZoneSeconds(text);
}

std::optional<std::int64_t> ParseDate(std::string_view text) {
  int parts[3] = {0, 1, 1};
  for (int i = 0; i < 3; ++i) {
    const std::optional<int> part = TakeNumber(text, i == 0 ? 4 : 2);
    if (!part) {
      return std::nullopt;
    }
    parts[i] = *part;
    if (i == 2 || !TakeOneOf(text, "-:/")) {
      break;
    }
  }
  const std::chrono::year_month_day day{std::chrono::year(parts[0]),
                                        std::chrono::month(static_cast<unsigned>(parts[1])),
                                        std::chrono::day(static_cast<unsigned>(parts[2]))};
  if (!day.ok() || parts[0] < 1000) {
    return std::nullopt;
  }
  std::int64_t seconds = std::int64_t{std::chrono::sys_days(day).time_since_epoch().count()} * 86400;
  if (TakeOneOf(text, "T ")) {
    seconds += TakeTime(text).value_or(0);
  }
  return seconds;
}

}  // namespace

void Fields::Text(const char* name, std::string_view value) {
  const std::string text = Shape(value);
  if (!text.empty()) {
    document_[name] = text;
  }
}

void Fields::TextIfMissing(const char* name, std::string_view value) {
  if (!Has(name)) {
    Text(name, value);
  }
}

void Fields::AddLine(const char* name, std::string_view value) {
  const std::string line = Shape(value);
  if (line.empty()) {
    return;
  }
  if (!Has(name)) {
    document_[name] = line;
    return;
  }
  std::string lines = document_[name].asString();
  if (lines.size() + line.size() < kMaxFieldBytes && !HasLine(lines, line)) {
    document_[name] = lines + "\n" + line;
  }
}

void Fields::Integer(const char* name, std::int64_t value) {
  document_[name] = Json::Int64{value};
}

void Fields::Fraction(const char* name, double value) {
  if (std::isfinite(value)) {
    document_[name] = value;
  }
}

void Fields::Date(const char* name, std::string_view text) {
  if (const std::optional<std::int64_t> seconds = ParseDate(text)) {
    Integer(name, *seconds);
  }
}

void Fields::IntegerText(const char* name, std::string_view text) {
  std::int64_t value = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), value).ec == std::errc()) {
    Integer(name, value);
  }
}

}  // namespace extractor
