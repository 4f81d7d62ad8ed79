// Programs started by tests.
#include "tests/support/subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace orbisk::test {
namespace {

constexpr int kCannotRun = 127;

struct Pipe {
  int read_end;
  int write_end;
};

Pipe MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  return {ends[0], ends[1]};
}

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts) {
    pointers.push_back(const_cast<char*>(text.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

void CloseEnd(int& fd) {
  if (fd >= 0) {
    close(std::exchange(fd, -1));
  }
}

// Appends what is there; closes the descriptor at its end.
void Drain(int& fd, std::string& text) {
  char buffer[65536];
  const ssize_t count = read(fd, buffer, sizeof(buffer));
  if (count > 0) {
    text.append(buffer, static_cast<size_t>(count));
  } else if (count == 0 || errno != EINTR) {
    CloseEnd(fd);
  }
}

}  // namespace

Subprocess::Subprocess(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
  std::vector<std::string> whole_environment = environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    whole_environment.emplace_back(*entry);
  }
  // Between fork and exec only calls that are safe in a signal handler: all memory is ready before.
  const std::vector<char*> argument_pointers = Pointers(arguments);
  const std::vector<char*> environment_pointers = Pointers(whole_environment);
  const Pipe input = MakePipe();
  const Pipe output = MakePipe();
  const Pipe errors = MakePipe();
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(input.read_end, STDIN_FILENO);
    dup2(output.write_end, STDOUT_FILENO);
    dup2(errors.write_end, STDERR_FILENO);
    alarm(0);
    execvpe(argument_pointers[0], argument_pointers.data(), environment_pointers.data());
    _exit(kCannotRun);
  }
  const int saved_errno = errno;
  close(input.read_end);
  close(output.write_end);
  close(errors.write_end);
  input_ = input.write_end;
  output_ = output.read_end;
  errors_ = errors.read_end;
  if (pid_ < 0) {
    CloseAll();
    throw std::system_error(saved_errno, std::generic_category(), "fork");
  }
}

Subprocess::~Subprocess() {
  Kill(SIGKILL);
  Reap(true);
  CloseAll();
}

void Subprocess::Write(const std::string& text) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = write(input_, text.data() + written, text.size() - written);
    if (count < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "write to subprocess");
    }
    written += static_cast<size_t>(std::max<ssize_t>(count, 0));
  }
}

void Subprocess::CloseInput() {
  CloseEnd(input_);
}

std::string Subprocess::ReadLine(std::chrono::milliseconds limit) {
  const Deadline deadline = std::chrono::steady_clock::now() + limit;
  while (true) {
    const size_t end = output_text_.find('\n', output_read_);
    if (end != std::string::npos) {
      std::string line = output_text_.substr(output_read_, end - output_read_);
      output_read_ = end + 1;
      return line;
    }
    if (output_ < 0 || std::chrono::steady_clock::now() >= deadline) {
      throw std::runtime_error(output_ < 0 ? "subprocess ended its output: " + errors_text_ : "no line in time");
    }
    ReadSome(deadline);
  }
}

void Subprocess::Kill(int signal) {
  if (!Reap(false)) {
    kill(pid_, signal);
  }
}

ProcessResult Subprocess::Wait(std::chrono::milliseconds limit) {
  const Deadline deadline = std::chrono::steady_clock::now() + limit;
  CloseInput();
  bool timed_out = false;
  while (output_ >= 0 || errors_ >= 0) {
    if (std::chrono::steady_clock::now() >= deadline) {
      timed_out = true;
      break;
    }
    ReadSome(deadline);
  }
  // Its pipes are closed: it has ended, or closed them and goes on.
  while (!timed_out && !Reap(false)) {
    timed_out = std::chrono::steady_clock::now() >= deadline;
    poll(nullptr, 0, 1);
  }
  if (timed_out) {
    Kill(SIGKILL);
    Reap(true);
  }
  return {WIFEXITED(wait_status_) ? WEXITSTATUS(wait_status_) : -1,
          WIFSIGNALED(wait_status_) ? WTERMSIG(wait_status_) : 0, timed_out, output_text_, errors_text_};
}

void Subprocess::ReadSome(Deadline deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  pollfd ends[2] = {{output_, POLLIN, 0}, {errors_, POLLIN, 0}};
  if (poll(ends, 2, static_cast<int>(std::max<int64_t>(left.count(), 0))) <= 0) {
    return;
  }
  if (ends[0].revents != 0) {
    Drain(output_, output_text_);
  }
  if (ends[1].revents != 0) {
    Drain(errors_, errors_text_);
  }
}

void Subprocess::CloseAll() {
  CloseEnd(input_);
  CloseEnd(output_);
  CloseEnd(errors_);
}

bool Subprocess::Reap(bool block) {
  while (!reaped_) {
    const pid_t ended = waitpid(pid_, &wait_status_, block ? 0 : WNOHANG);
    reaped_ = ended == pid_ || (ended < 0 && errno == ECHILD);
    if (!reaped_ && !block) {
      break;
    }
  }
  return reaped_;
}

ProcessResult RunProcess(const std::vector<std::string>& arguments, std::chrono::milliseconds limit) {
  return Subprocess(arguments).Wait(limit);
}

std::string ProgramBeside(const std::string& name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

std::string BuiltProgram(const std::string& name) {
  const char* const folder = getenv("ORBISK_BIN_DIR");
  return folder != nullptr ? (std::filesystem::absolute(folder) / name).string() : ProgramBeside("../bin/" + name);
}

}  // namespace orbisk::test
