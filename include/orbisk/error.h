// The one exception type of the library.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "orbisk/export.h"

namespace orbisk {

/// What every failing operation of the library throws, after it wrote one record to the system log.
///
/// Carries a number that front ends act on and a reason for people. `what()` is the reason alone; the text with the
/// number in front is what the base class holds (`std::runtime_error::what()` called on the base).
///
/// Threads: a plain value.
class ORBISK_EXPORT Error : public std::runtime_error {
 public:
  /// The numbers are the contract; they have no names. 120 bad argument or data, 121 share enumeration, 502 system or
  /// platform call, 503 user identity, 504 unreadable configuration, 505 unwritable configuration, 506 lock file,
  /// 800 no such share, 801 package account, 901 folder exists, 902 no such folder, 903 path not indexable,
  /// 906 malformed event, 913 search daemon unreachable or ill-mannered, 914 document not built, 916 incomplete
  /// response, 917 unparsable path, 1003 no space, 9999 no such node. Any other number came from the search daemon.
  enum ErrorCode : std::int32_t {};

  explicit Error(ErrorCode code);
  Error(ErrorCode code, const std::string& reason);
  Error(const Error& other);
  Error& operator=(const Error& other);
  ~Error() override;

  /// The reason alone, "" for an error without one. Valid as long as this object.
  const char* what() const noexcept override;

  ErrorCode code() const noexcept { return code_; }
  const std::string& reason() const noexcept { return reason_; }

 private:
  ErrorCode code_;
  std::string reason_;
};

/// "Orbisk error, code=N", and ", reason=[R]" behind it unless `reason` is empty.
ORBISK_EXPORT std::string ErrorString(Error::ErrorCode code, const std::string& reason);

/// A code from its number: `throw Error(Code(120), "Missing share")`.
constexpr Error::ErrorCode Code(std::int32_t number) {
  return static_cast<Error::ErrorCode>(number);
}

/// The system's text for the current errno, as strerror(3) gives it.
ORBISK_EXPORT std::string GetErrnoStr();
/// The system's text for `errnum`.
ORBISK_EXPORT std::string GetErrnoStr(int errnum);

}  // namespace orbisk
