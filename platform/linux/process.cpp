// Starting programs and waiting for them.
#include "nimo/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <vector>

#include "platform/linux/last_error.h"

namespace nimo {
namespace {

constexpr unsigned kWaitClosedOff = 187;
constexpr int kSignalBase = 128;

class SpawnSettings {
 public:
  SpawnSettings() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
  }
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  // Empty standard streams, no other descriptor, and signals as a fresh program expects them. 0 or an error.
  int CloseOff() {
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    const int errors[] = {
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0),
        posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0),
        posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, "/dev/null", O_WRONLY, 0),
        posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1),
        posix_spawnattr_setsigmask(&attributes_, &none),
        posix_spawnattr_setsigdefault(&attributes_, &all),
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF),
    };
    for (const int error : errors) {
      if (error != 0) {
        return error;
      }
    }
    return 0;
  }

  const posix_spawn_file_actions_t* actions() const { return &actions_; }
  const posix_spawnattr_t* attributes() const { return &attributes_; }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

int AwaitEnd(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      return NIMO_FAIL_ERRNO();
    }
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : kSignalBase + WTERMSIG(status);
}

int Run(const char* program, const std::vector<char*>& arguments) {
  SpawnSettings settings;
  if (const int error = settings.CloseOff(); error != 0) {
    return NIMO_FAIL(error);
  }
  pid_t pid = 0;
  // It reports what exec could not do as well.
  const int error = posix_spawn(&pid, program, settings.actions(), settings.attributes(), arguments.data(), environ);
  return error != 0 ? NIMO_FAIL(error) : AwaitEnd(pid);
}

}  // namespace
}  // namespace nimo

int NLIBCExecl(const char* program, unsigned flags, ...) {
  if (program == nullptr || *program != '/' || flags != nimo::kWaitClosedOff) {
    return NIMO_FAIL(EINVAL);
  }
  std::vector<char*> arguments{const_cast<char*>(program)};
  va_list list;
  va_start(list, flags);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it does not see va_start
  for (char* text = va_arg(list, char*); text != nullptr; text = va_arg(list, char*)) {
    arguments.push_back(text);
  }
  va_end(list);
  arguments.push_back(nullptr);
  return nimo::Run(program, arguments);
}
