// The document's fields, each written with its type and within its bound.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace extractor {

/// Writes fields of the metadata vocabulary. Values that say nothing (empty text, numbers that are not finite) are not
/// written; text is made valid UTF-8, trimmed and bounded.
class Fields {
 public:
  /// Writes to `document`, which must outlive this.
  explicit Fields(Json::Value& document) : document_(document) {}

  bool Has(const char* name) const { return document_.isMember(name); }
  /// Replaces what the field held.
  void Text(const char* name, std::string_view value);
  /// Writes only when the field is still missing: for sources asked in order of trust.
  void TextIfMissing(const char* name, std::string_view value);
  /// Adds a line to the field, unless it has that line: for authors, keywords and other lists.
  void AddLine(const char* name, std::string_view value);
  void Integer(const char* name, std::int64_t value);
  void Fraction(const char* name, double value);
  /// Writes a date in seconds since 1970 when `text` is one: "2024-03-01T10:20:30Z" with any part from the end missing,
  /// also with ':' in the date and a blank for the 'T'. Without a zone it is taken as UTC, since nothing says more.
  void Date(const char* name, std::string_view text);
  /// Writes the number that `text` begins with, if any.
  void IntegerText(const char* name, std::string_view text);

 private:
  Json::Value& document_;
};

}  // namespace extractor
