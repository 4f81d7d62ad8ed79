// What a notification says: texts by key, with others put into them.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace nimonxmnotify {

/// The texts of one application, by key.
class StringTable {
 public:
  /// Nothing but the keys themselves.
  StringTable() = default;

  /// Reads the texts of `application` from a file {"application": {"key": "text"}}. A file that is missing or malformed
  /// has no texts: a notification must come through all the same.
  static StringTable Load(const std::string& file, const std::string& application);

  /// The text; the key itself where there is none.
  const std::string& Text(const std::string& key) const;

 private:
  std::map<std::string, std::string> texts_;
};

/// The installed table, as seen from the program `program`: beside it (in a build folder) or below share/orbisk of one
/// of the folders above. "" when there is none.
std::string FindStringTable(const std::string& program);

/// `text` with the n-th of `values` in place of each {n}, n being one digit. Values that have no place follow at the
/// end.
std::string FillIn(const std::string& text, const std::vector<std::string>& values);

/// Without what stands between "<" and ">".
std::string WithoutTags(const std::string& text);

/// Such that it shows as it is where "&", "<" and ">" have a meaning.
std::string EscapeMarkup(const std::string& text);

/// On one line, between double quotes: as a value in a record.
std::string Quote(const std::string& text);

}  // namespace nimonxmnotify
