// Structured records in the system log.
#include "services/base/log.h"

#include <system_error>

namespace service {
namespace {

bool NeedsQuotes(std::string_view value) {
  if (value.empty()) {
    return true;
  }
  for (const char c : value) {
    if (static_cast<unsigned char>(c) <= ' ' || c == '"' || c == '\\' || c == '=') {
      return true;
    }
  }
  return false;
}

void AppendQuoted(std::string& text, std::string_view value) {
  static constexpr char kHex[] = "0123456789abcdef";
  text += '"';
  for (const char c : value) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < ' ') {
      text += {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]};
    } else {
      if (c == '"' || c == '\\') {
        text += '\\';
      }
      text += c;
    }
  }
  text += '"';
}

}  // namespace

void OpenLog(const char* program, int level, bool to_stderr) {
  openlog(program, LOG_PID | (to_stderr ? LOG_PERROR : 0), LOG_DAEMON);
  setlogmask(LOG_UPTO(level));
}

Record::Record(int priority, std::string_view event) : priority_(priority), text_("event=") {
  text_ += event;
}

Record::~Record() {
  syslog(priority_, "%s", text_.c_str());
}

Record& Record::Add(std::string_view key, std::string_view value) {
  text_ += ' ';
  text_ += key;
  text_ += '=';
  if (NeedsQuotes(value)) {
    AppendQuoted(text_, value);
  } else {
    text_ += value;
  }
  return *this;
}

Record& Record::Add(std::string_view key, long long value) {
  return Add(key, std::to_string(value));
}

Record& Record::AddErrno(std::string_view key, int error) {
  return Add(key, std::generic_category().message(error));
}

}  // namespace service
