// Reading of the values in people's queries.
#include "services/search/people_value.h"

#include <charconv>
#include <cmath>
#include <ctime>

#include "services/search/index.h"
#include "services/search/words.h"

namespace search {
namespace {

// A value and, for a date, its end: [begin, end).
struct Span {
  Json::Value begin;
  Json::Value end;
};

[[noreturn]] void Bad(const std::string& text, const char* what) {
  throw Error(ErrorCode::kBadQuery, "\"" + text + "\" is no " + what);
}

double ReadDouble(std::string_view digits, const std::string& text, const char* what) {
  double number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error != std::errc() || end != digits.data() + digits.size() || !std::isfinite(number)) {
    Bad(text, what);
  }
  return number;
}

// Whole where it can be, because a double does not hold every whole number.
Json::Value Number(std::string_view digits, const std::string& text) {
  int64_t whole = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), whole);
  if (error == std::errc() && end == digits.data() + digits.size()) {
    return Json::Int64{whole};
  }
  return ReadDouble(digits, text, "number");
}

Json::Value Bytes(const std::string& text) {
  std::string_view digits = text;
  constexpr std::string_view kUnits = "kmgtp";
  double factor = 1;
  const std::string lower = Fold(text);
  size_t end = lower.find_first_not_of("0123456789.");
  if (end != std::string::npos) {
    const std::string unit = lower.substr(end);
    const size_t power = kUnits.find(unit.front());
    const std::string_view rest = std::string_view(unit).substr(1);
    if (unit != "b" && (power == std::string_view::npos || !(rest.empty() || rest == "b" || rest == "ib"))) {
      Bad(text, "size");
    }
    factor = unit == "b" ? 1 : std::pow(1024.0, static_cast<double>(power) + 1);
    digits = digits.substr(0, end);
  }
  const double bytes = ReadDouble(digits, text, "size") * factor;
  if (bytes > 9e18) {
    Bad(text, "size");
  }
  return Json::Int64{static_cast<int64_t>(bytes)};
}

int64_t LocalTime(int year, int month, int day) {
  std::tm local{};
  local.tm_year = year - 1900;
  local.tm_mon = month - 1;
  local.tm_mday = day;
  local.tm_isdst = -1;
  return mktime(&local);
}

Span DaySpan(const std::tm& day, int back) {
  const int year = day.tm_year + 1900;
  return {Json::Int64{LocalTime(year, day.tm_mon + 1, day.tm_mday - back)},
          Json::Int64{LocalTime(year, day.tm_mon + 1, day.tm_mday - back + 1)}};
}

std::optional<int> Digits(const std::string& text, size_t at, size_t count) {
  int number = 0;
  if (text.size() < at + count) {
    return std::nullopt;
  }
  const auto [end, error] = std::from_chars(text.data() + at, text.data() + at + count, number);
  return error == std::errc() && end == text.data() + at + count && number >= 0 ? std::optional<int>(number)
                                                                                : std::nullopt;
}

bool IsDay(int year, int month, int day) {
  return std::chrono::year_month_day(std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                     std::chrono::day(static_cast<unsigned>(day)))
      .ok();
}

Span CalendarSpan(const std::string& text) {
  const auto year = Digits(text, 0, 4);
  if (!year || *year < 1) {
    Bad(text, "date");
  }
  if (text.size() == 4) {
    return {Json::Int64{LocalTime(*year, 1, 1)}, Json::Int64{LocalTime(*year + 1, 1, 1)}};
  }
  const auto month = text[4] == '-' ? Digits(text, 5, 2) : std::nullopt;
  if (month && *month >= 1 && *month <= 12 && text.size() == 7) {
    return {Json::Int64{LocalTime(*year, *month, 1)}, Json::Int64{LocalTime(*year, *month + 1, 1)}};
  }
  const auto day = text.size() == 10 && text[7] == '-' ? Digits(text, 8, 2) : std::nullopt;
  if (!month || !day || !IsDay(*year, *month, *day)) {
    Bad(text, "date");
  }
  return {Json::Int64{LocalTime(*year, *month, *day)}, Json::Int64{LocalTime(*year, *month, *day + 1)}};
}

Span TimeSpan(const std::string& text, std::chrono::system_clock::time_point now) {
  const std::string lower = Fold(text);
  const time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm today{};
  localtime_r(&seconds, &today);
  if (lower == "today" || lower == "yesterday") {
    return DaySpan(today, lower == "today" ? 0 : 1);
  }
  if (lower.size() > 1 && lower.size() <= 6 && lower.back() == 'd') {
    if (const auto days = Digits(lower, 0, lower.size() - 1)) {
      return {Json::Int64{seconds - int64_t{*days} * 86'400}, Json::Int64{seconds + 1}};
    }
  }
  return CalendarSpan(text);
}

Span ReadSpan(const std::string& text, ValueUnit unit, std::chrono::system_clock::time_point now) {
  if (unit == ValueUnit::kTime) {
    return TimeSpan(text, now);
  }
  Json::Value value = unit == ValueUnit::kBytes ? Bytes(text) : Number(text, text);
  return {value, value};
}

}  // namespace

ValueRange ReadRange(const std::string& text, ValueUnit unit, std::chrono::system_clock::time_point now) {
  ValueRange range;
  const bool is_time = unit == ValueUnit::kTime;
  // A date's end is the first second after it; a number's is itself.
  std::optional<Json::Value>& upto = is_time ? range.below : range.to;
  std::optional<Json::Value>& after = is_time ? range.from : range.above;
  const auto span = [&](const std::string& part) { return ReadSpan(part, unit, now); };
  if (const size_t dots = text.find(".."); dots != std::string::npos) {
    const std::string first = text.substr(0, dots);
    const std::string last = text.substr(dots + 2);
    if (first.empty() && last.empty()) {
      Bad(text, "range");
    }
    if (!first.empty()) {
      range.from = span(first).begin;
    }
    if (!last.empty()) {
      upto = span(last).end;
    }
  } else if (text.compare(0, 2, ">=") == 0) {
    range.from = span(text.substr(2)).begin;
  } else if (text.compare(0, 2, "<=") == 0) {
    upto = span(text.substr(2)).end;
  } else if (text.front() == '>') {
    after = span(text.substr(1)).end;
  } else if (text.front() == '<') {
    range.below = span(text.substr(1)).begin;
  } else {
    const Span whole = span(text);
    range.from = whole.begin;
    upto = whole.end;
  }
  return range;
}

bool ReadTruth(const std::string& text) {
  const std::string lower = Fold(text);
  if (lower == "true" || lower == "yes" || lower == "1") {
    return true;
  }
  if (lower == "false" || lower == "no" || lower == "0") {
    return false;
  }
  Bad(text, "true or false");
}

}  // namespace search
