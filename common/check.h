// Records and the check macros: one failed check is one record in the system log.
//
// A check names the failure: `ORBISK_CHECK(0 > fd, 502, "open failed")` fails when the condition holds. The record
// carries the condition as written, the base name of the source file, the line and the function, so a check stands
// in the named function itself and never in a lambda.
//
// errno belongs to the record: it is taken before anything else runs, is what `reason` sees, is shown as " [err: ...]"
// if it is not 0, and is 0 afterwards.
#pragma once

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "orbisk/error.h"

namespace orbisk {

/// Where a record comes from.
struct RecordSource {
  const char* file;  ///< base name, such as "folder_mgr.cpp"
  int line;
  const char* function;  ///< bare name, such as "Save"
};

/// Writes "... Failed [condition], reason: reason" with errno as it stands, then sets errno to 0.
void LogFailure(const RecordSource& source, const char* condition, const char* reason);

/// Writes "... Failed [condition]" with errno as it stands, then sets errno to 0.
void LogFailure(const RecordSource& source, const char* condition);

/// Writes the record of `error` and throws it. `saved_errno` is errno as the failed condition left it.
[[noreturn]] void ThrowChecked(const RecordSource& source, const char* condition, const Error& error, int saved_errno);

}  // namespace orbisk

/// The file that records name. A file that carries on another one defines this as that one's name before it includes
/// this header: what log readers match on does not follow where the code moves.
#ifndef ORBISK_RECORD_FILE
#define ORBISK_RECORD_FILE __FILE_NAME__
#endif

/// The place of this line, for a record.
#define ORBISK_SOURCE                      \
  ::orbisk::RecordSource {                 \
    ORBISK_RECORD_FILE, __LINE__, __func__ \
  }

/// As ORBISK_SOURCE, for a record whose line number log readers match on.
#define ORBISK_SOURCE_AT(line)           \
  ::orbisk::RecordSource {               \
    ORBISK_RECORD_FILE, (line), __func__ \
  }

/// Writes one record: the prefix of `source`, then `tail` (a printf(3) format) with its arguments, and " [err: %m]" if
/// errno is not 0, which it is afterwards. `__extension__` because ISO C++ does not know %m.
#define ORBISK_RECORD(source, tail, ...)                                                                              \
  do {                                                                                                                \
    const ::orbisk::RecordSource& orbisk_source = (source);                                                           \
    if (errno != 0) {                                                                                                 \
      __extension__ syslog(LOG_ERR, "%s:%d (%d, %u) (%s) " tail " [err: %m]", orbisk_source.file, orbisk_source.line, \
                           getpid(), geteuid(), orbisk_source.function __VA_OPT__(, ) __VA_ARGS__);                   \
      errno = 0;                                                                                                      \
    } else {                                                                                                          \
      syslog(LOG_ERR, "%s:%d (%d, %u) (%s) " tail, orbisk_source.file, orbisk_source.line, getpid(), geteuid(),       \
             orbisk_source.function __VA_OPT__(, ) __VA_ARGS__);                                                      \
    }                                                                                                                 \
  } while (false)

/// Writes one informational record: file and line, then `tail` with its arguments. Leaves errno alone.
#define ORBISK_NOTE(tail, ...) syslog(LOG_ERR, "%s:%d " tail, ORBISK_RECORD_FILE, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/// Fails with Error(code, reason) if `condition` holds; the record shows `text` from `source`.
#define ORBISK_CHECK_FROM(source, condition, text, error_code, reason)        \
  do {                                                                        \
    if (condition) {                                                          \
      const int orbisk_errno = errno;                                         \
      const ::orbisk::Error orbisk_error(::orbisk::Code(error_code), reason); \
      ::orbisk::ThrowChecked(source, text, orbisk_error, orbisk_errno);       \
    }                                                                         \
  } while (false)

/// Throws Error(error_code, reason) if `condition` holds.
#define ORBISK_CHECK(condition, error_code, reason) \
  ORBISK_CHECK_FROM(ORBISK_SOURCE, condition, #condition, error_code, reason)

/// As ORBISK_CHECK, with the condition's text given where the source cannot be literal.
#define ORBISK_CHECK_TEXT(condition, text, error_code, reason) \
  ORBISK_CHECK_FROM(ORBISK_SOURCE, condition, text, error_code, reason)

/// As ORBISK_CHECK, with the line number given.
#define ORBISK_CHECK_AT(line, condition, error_code, reason) \
  ORBISK_CHECK_FROM(ORBISK_SOURCE_AT(line), condition, #condition, error_code, reason)

/// Evaluates to whether `condition` holds, after writing its record: `if (ORBISK_FAILED(0 > rc)) return false;`
#define ORBISK_FAILED(condition) ORBISK_FAILED_FROM(ORBISK_SOURCE, condition, #condition)

/// As ORBISK_FAILED, with the condition's text given.
#define ORBISK_FAILED_TEXT(condition, text) ORBISK_FAILED_FROM(ORBISK_SOURCE, condition, text)

/// As ORBISK_FAILED, with the line number given.
#define ORBISK_FAILED_AT(line, condition) ORBISK_FAILED_FROM(ORBISK_SOURCE_AT(line), condition, #condition)

#define ORBISK_FAILED_FROM(source, condition, text) ((condition) ? (::orbisk::LogFailure(source, text), true) : false)
