// Starting programs and waiting for them.
#include "nimo/process.h"

#include <cstdarg>
#include <string>
#include <vector>

#include "platform/linux/last_error.h"
#include "platform/linux/program.h"

namespace nimo {
namespace {

constexpr unsigned kWaitClosedOff = 187;

int Run(const char* program, va_list arguments) {
  if (program == nullptr || *program != '/') {
    return NIMO_FAIL(EINVAL);
  }
  std::vector<std::string> command{program};
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it does not see va_start
  for (const char* text = va_arg(arguments, const char*); text != nullptr; text = va_arg(arguments, const char*)) {
    command.emplace_back(text);
  }
  return RunProgram(command);
}

}  // namespace
}  // namespace nimo

int NLIBCExecl(const char* program, unsigned flags, ...) {
  if (flags != nimo::kWaitClosedOff) {
    return NIMO_FAIL(EINVAL);
  }
  va_list arguments;
  va_start(arguments, flags);
  const int status = nimo::Run(program, arguments);
  va_end(arguments);
  return status;
}

int NLIBCExec(const char* program, ...) {
  va_list arguments;
  va_start(arguments, program);
  const int status = nimo::Run(program, arguments);
  va_end(arguments);
  return status;
}
