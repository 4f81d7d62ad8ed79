// syslog(3), replaced.
#include "tests/support/record_capture.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace orbisk::test {
namespace {

std::mutex records_mutex;  // guards the two below
bool capturing = false;
std::vector<Record> captured;

void Append(int priority, const char* format, va_list arguments) {
  const int saved_errno = errno;  // what %m shows
  char* text = nullptr;
  errno = saved_errno;
  const int length = vasprintf(&text, format, arguments);
  {
    const std::lock_guard lock(records_mutex);
    if (capturing && length >= 0) {
      captured.push_back({priority, format, std::string(text, static_cast<size_t>(length))});
    }
  }
  free(text);
  errno = saved_errno;
}

}  // namespace

RecordCapture::RecordCapture() {
  const std::lock_guard lock(records_mutex);
  captured.clear();
  capturing = true;
}

RecordCapture::~RecordCapture() {
  const std::lock_guard lock(records_mutex);
  capturing = false;
}

std::vector<Record> RecordCapture::records() const {
  const std::lock_guard lock(records_mutex);
  return captured;
}

std::vector<std::string> RecordCapture::texts() const {
  std::vector<std::string> result;
  for (const Record& record : records()) {
    result.push_back(record.text);
  }
  return result;
}

void RecordCapture::Clear() {
  const std::lock_guard lock(records_mutex);
  captured.clear();
}

}  // namespace orbisk::test

extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  orbisk::test::Append(priority, format, arguments);
  va_end(arguments);
}

// What syslog(3) becomes where the compiler is told to fortify.
void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  orbisk::test::Append(priority, format, arguments);
  va_end(arguments);
}
}
