// What a record says besides where it comes from.
#pragma once

#include <unistd.h>

#include <string>

#include "tests/support/record_capture.h"

namespace orbisk::test {

/// The text of `record` behind its prefix "file:LINE (pid, euid) (function) ", where LINE may be any number. A record
/// with another prefix comes back whole, so that a comparison shows it.
inline std::string RecordTail(const Record& record, const std::string& file, const std::string& function) {
  const std::string& text = record.text;
  const std::string middle =
      " (" + std::to_string(getpid()) + ", " + std::to_string(geteuid()) + ") (" + function + ") ";
  if (text.compare(0, file.size() + 1, file + ":") != 0) {
    return text;
  }
  const size_t digits_end = text.find_first_not_of("0123456789", file.size() + 1);
  if (digits_end == file.size() + 1 || text.compare(digits_end, middle.size(), middle) != 0) {
    return text;
  }
  return text.substr(digits_end + middle.size());
}

}  // namespace orbisk::test
