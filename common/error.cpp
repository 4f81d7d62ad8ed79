// The exception type and the texts of error numbers.
#include "orbisk/error.h"

#include <cerrno>
#include <cstring>

namespace orbisk {

Error::Error(ErrorCode code) : Error(code, std::string()) {}

Error::Error(ErrorCode code, const std::string& reason)
    : std::runtime_error(ErrorString(code, reason)), code_(code), reason_(reason) {}

Error::Error(const Error& other) = default;
Error& Error::operator=(const Error& other) = default;
Error::~Error() = default;

const char* Error::what() const noexcept {
  return reason_.c_str();
}

std::string ErrorString(Error::ErrorCode code, const std::string& reason) {
  std::string text = "Orbisk error, code=" + std::to_string(static_cast<std::int32_t>(code));
  if (!reason.empty()) {
    text += ", reason=[" + reason + "]";
  }
  return text;
}

std::string GetErrnoStr() {
  return GetErrnoStr(errno);
}

std::string GetErrnoStr(int errnum) {
  // The GNU variant: returns the text, which lives in `buffer` only for numbers that it does not know.
  char buffer[128];
  return strerror_r(errnum, buffer, sizeof(buffer));
}

}  // namespace orbisk
