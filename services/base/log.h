// Structured records: one line each, "event=NAME key=value ...", to the system log.
#pragma once

#include <syslog.h>

#include <string>
#include <string_view>

namespace service {

/// Opens the system log under the name `program`, which is kept and must stay. Records above `level` (a syslog
/// priority) are not written. With `to_stderr` they also go to standard error.
void OpenLog(const char* program, int level, bool to_stderr);

/// A record under construction; it is written when the object goes.
///
///     Record(LOG_WARNING, "file_refused").Add("path", path).AddErrno("reason", error);
///
/// Values with spaces, quotes or control bytes are quoted, so a record stays one line whatever a file is called.
class Record {
 public:
  Record(int priority, std::string_view event);
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;
  ~Record();

  Record& Add(std::string_view key, std::string_view value);
  Record& Add(std::string_view key, long long value);
  /// Adds the text of the error number `error`.
  Record& AddErrno(std::string_view key, int error);

 private:
  int priority_;
  std::string text_;
};

}  // namespace service
