// Captures what the code under test writes to the system log. Linking this replaces syslog(3) in the program.
#pragma once

#include <string>
#include <vector>

namespace orbisk::test {

/// One call of syslog(3).
struct Record {
  int priority;
  std::string format;  ///< the format string as it was passed
  std::string text;    ///< the formatted text, %m included
};

/// Collects the records written between its construction and its destruction, from all threads.
/// Without one, records are dropped. One at a time.
class RecordCapture {
 public:
  RecordCapture();
  ~RecordCapture();
  RecordCapture(const RecordCapture&) = delete;
  RecordCapture& operator=(const RecordCapture&) = delete;

  /// A copy of what was written so far.
  std::vector<Record> records() const;
  /// The texts alone.
  std::vector<std::string> texts() const;
  void Clear();
};

}  // namespace orbisk::test
