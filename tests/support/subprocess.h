// Programs started by tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace orbisk::test {

/// How a program ended, and what it wrote.
struct ProcessResult {
  int exit_status;  ///< -1 if a signal ended it
  int signal;       ///< 0 if it exited
  bool timed_out;   ///< it exceeded its limit and was killed
  std::string output;
  std::string errors;
};

/// A running program with its standard input, output and error on pipes. Killed (by its process id) and reaped at
/// destruction; killed by the kernel when the thread that started it ends. One thread uses it.
class Subprocess {
 public:
  /// Starts `arguments[0]`, searched in PATH if it has no slash, with `environment` ("NAME=value") added to this
  /// program's. Throws std::system_error. A program that cannot be run exits with status 127.
  explicit Subprocess(const std::vector<std::string>& arguments, const std::vector<std::string>& environment = {});
  ~Subprocess();
  Subprocess(const Subprocess&) = delete;
  Subprocess& operator=(const Subprocess&) = delete;

  pid_t pid() const { return pid_; }
  void Write(const std::string& text);
  void CloseInput();
  /// The next line of its output without the newline. Throws std::runtime_error when none comes within `limit`.
  std::string ReadLine(std::chrono::milliseconds limit);
  /// Sends a signal, if it is still running.
  void Kill(int signal);
  /// Closes its input, then waits for its end, taking what it writes meanwhile; kills it after `limit`.
  ProcessResult Wait(std::chrono::milliseconds limit);

 private:
  using Deadline = std::chrono::steady_clock::time_point;

  void ReadSome(Deadline deadline);
  void CloseAll();
  bool Reap(bool block);

  pid_t pid_ = -1;
  bool reaped_ = false;
  int wait_status_ = 0;
  int input_ = -1;
  int output_ = -1;
  int errors_ = -1;
  std::string output_text_;
  size_t output_read_ = 0;  // how much of it ReadLine handed out
  std::string errors_text_;
};

/// Runs a program to its end.
ProcessResult RunProcess(const std::vector<std::string>& arguments,
                         std::chrono::milliseconds limit = std::chrono::seconds(60));

/// The path of the program `name` in the directory of this test program.
std::string ProgramBeside(const std::string& name);

/// The absolute path of the product's program `name`: in $ORBISK_BIN_DIR, or in the build that this test program is of.
std::string BuiltProgram(const std::string& name);

}  // namespace orbisk::test
