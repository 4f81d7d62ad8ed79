// A running extractor daemon in a place of its own, for system tests of it.
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/eventually.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {

/// A connection to the daemon.
class ExtractorClient {
 public:
  /// Throws std::runtime_error when nobody listens at `socket_path`.
  explicit ExtractorClient(const std::string& socket_path);
  ~ExtractorClient();
  ExtractorClient(const ExtractorClient&) = delete;
  ExtractorClient& operator=(const ExtractorClient&) = delete;

  /// Sends bytes as they are.
  void SendRaw(std::string_view bytes);
  /// Sends a request with its length.
  void Send(const std::string& request);
  /// Waits for an answer; "" when the daemon hung up.
  std::string Receive();

 private:
  int fd_;
};

/// A folder with a daemon whose reader does what a file's content says (tests/system/hostile_extractor.cpp).
class ExtractorBox {
 public:
  ~ExtractorBox();

  std::string operator/(const std::string& name) const { return area_ / name; }
  std::string socket() const { return area_ / "socket"; }
  std::string pid_file() const { return area_ / "pid"; }
  std::string state_folder() const { return area_ / "state"; }
  std::vector<std::string> Command(const std::vector<std::string>& arguments) const;

  /// Starts the daemon and waits until it answers.
  void Start(const std::vector<std::string>& arguments = {});
  /// The same with another program file.
  void StartProgram(const std::string& program, const std::vector<std::string>& arguments = {});
  ProcessResult Stop();
  Subprocess& daemon() { return *daemon_; }

  /// Asks for a file with text and metadata, over a connection of its own.
  Json::Value Parse(const std::string& path, bool need_meta = true) const;
  /// Writes a file with `content` and asks for it.
  Json::Value Do(const std::string& content);
  /// Asks anything.
  Json::Value Ask(const std::string& request) const;
  Json::Value Status() const;

 private:
  void Launch(const std::vector<std::string>& command);

  TempDir area_;
  std::unique_ptr<Subprocess> daemon_;
  int files_ = 0;
};

/// The text of a request for `path`.
std::string ParseText(const std::string& path, bool need_meta = true);

/// Whether a process runs. One that ended does not, even if nobody has asked how it ended.
bool IsRunning(pid_t pid);

}  // namespace orbisk::test
