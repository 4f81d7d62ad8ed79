// The records of failed checks.
#include "common/check.h"

namespace orbisk {

void LogFailure(const RecordSource& source, const char* condition, const char* reason) {
  ORBISK_RECORD(source, "Failed [%s], reason: %s", condition, reason);
}

void LogFailure(const RecordSource& source, const char* condition) {
  ORBISK_RECORD(source, "Failed [%s]", condition);
}

void ThrowChecked(const RecordSource& source, const char* condition, const Error& error, int saved_errno) {
  errno = saved_errno;
  LogFailure(source, condition, error.what());
  throw error;
}

}  // namespace orbisk
