// Running programs: posix_spawn with the standard streams closed off.
#include "platform/linux/program.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "platform/linux/last_error.h"
#include "platform/linux/unique_fd.h"

namespace nimo {
namespace {

constexpr int kSignalBase = 128;
constexpr size_t kOutputBytes = 64UL * 1024;
constexpr const char* kFolders[] = {"/usr/local/sbin", "/usr/local/bin", "/usr/sbin", "/usr/bin", "/sbin", "/bin"};

// The environment's word for the same folders.
std::string SearchPath() {
  std::string path = "PATH=";
  for (const char* const folder : kFolders) {
    path += (path.back() == '=' ? "" : ":") + std::string(folder);
  }
  return path;
}

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

  // Empty standard streams but for `output` (-1: none), no other descriptor, and signals as a fresh program expects
  // them. 0 or an error.
  int CloseOff(int output) {
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    const int errors[] = {
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0),
        output < 0 ? posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0)
                   : posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO),
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

// The pipe that a program's output comes through; none unless it is wanted.
class OutputPipe {
 public:
  bool Open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      return false;
    }
    read_end_ = UniqueFd(ends[0]);
    // Not below the standard streams: it would be closed by what makes them, in a caller that has none.
    write_end_ = UniqueFd(fcntl(ends[1], F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    close(ends[1]);
    return write_end_.get() >= 0;
  }
  int write_end() const { return write_end_.get(); }

  // To the end of the stream, also what is not kept: the program is not to wait for its reader.
  std::string ReadAll() {
    write_end_ = UniqueFd();
    std::string text;
    char buffer[4096];
    while (true) {
      const ssize_t count = read(read_end_.get(), buffer, sizeof(buffer));
      if (count < 0 && errno == EINTR) {
        continue;
      }
      if (count <= 0) {
        return text;
      }
      text.append(buffer, std::min(static_cast<size_t>(count), kOutputBytes - text.size()));
    }
  }

 private:
  UniqueFd read_end_;
  UniqueFd write_end_;
};

std::vector<char*> Pointers(const std::vector<std::string>& command) {
  std::vector<char*> pointers;
  pointers.reserve(command.size() + 1);
  for (const std::string& argument : command) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

int AwaitEnd(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      return NIMO_FAIL_ERRNO();
    }
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : kSignalBase + WTERMSIG(status);
}

}  // namespace

int RunProgram(const std::vector<std::string>& command, const RunOptions& options) {
  OutputPipe output;
  if (options.output != nullptr && !output.Open()) {
    return NIMO_FAIL_ERRNO();
  }
  SpawnSettings settings;
  if (const int error = settings.CloseOff(output.write_end()); error != 0) {
    return NIMO_FAIL(error);
  }
  const std::vector<std::string> path_alone = {SearchPath()};
  pid_t pid = 0;
  // It reports what exec could not do as well.
  const int error =
      posix_spawn(&pid, command.front().c_str(), settings.actions(), settings.attributes(), Pointers(command).data(),
                  options.clean_environment ? Pointers(path_alone).data() : environ);
  if (error != 0) {
    return NIMO_FAIL(error);
  }
  if (options.output != nullptr) {
    *options.output = output.ReadAll();
  }
  return AwaitEnd(pid);
}

int RunToSuccess(const std::vector<std::string>& command, const RunOptions& options) {
  const int status = RunProgram(command, options);
  return status > 0 ? NIMO_FAIL(EIO) : status;
}

std::string FindProgram(const std::string& name) {
  for (const char* const folder : kFolders) {
    std::string path = std::string(folder) + "/" + name;
    if (access(path.c_str(), X_OK) == 0) {
      return path;
    }
  }
  return "";
}

}  // namespace nimo
