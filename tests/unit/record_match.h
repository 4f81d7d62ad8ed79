// Compares captured records with the parts that are fixed; the line number is any.
#pragma once

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <string>

#include "tests/support/record_capture.h"

namespace orbisk::test {

/// The text of a record with its line number replaced by "N".
inline std::string WithoutLine(const std::string& text) {
  const size_t colon = text.find(':');
  size_t end = colon == std::string::npos ? text.size() : colon + 1;
  const size_t begin = end;
  while (end < text.size() && isdigit(static_cast<unsigned char>(text[end])) != 0) {
    ++end;
  }
  return end == begin ? text : text.substr(0, begin) + "N" + text.substr(end);
}

/// "FILE:N (pid, euid) (FUNCTION) TAIL", and " [err: ERROR]" unless `error` is empty.
inline std::string RecordText(const std::string& file, const std::string& function, const std::string& tail,
                              const std::string& error = "") {
  return file + ":N (" + std::to_string(getpid()) + ", " + std::to_string(geteuid()) + ") (" + function + ") " + tail +
         (error.empty() ? "" : " [err: " + error + "]");
}

/// Whether `record` is the one of a check that failed with a reason: priority, format and text.
inline void ExpectFailure(const Record& record, const std::string& file, const std::string& function,
                          const std::string& condition, const std::string& reason, const std::string& error = "") {
  const std::string format = "%s:%d (%d, %u) (%s) Failed [%s], reason: %s";
  EXPECT_EQ(3, record.priority);
  EXPECT_EQ(error.empty() ? format : format + " [err: %m]", record.format);
  EXPECT_EQ(RecordText(file, function, "Failed [" + condition + "], reason: " + reason, error),
            WithoutLine(record.text));
}

}  // namespace orbisk::test
