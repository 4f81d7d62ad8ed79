// A place with a running search daemon, for system tests of it.
#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/eventually.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {

/// A connection to the daemon's socket, for what a well-behaved client does not do.
class RawClient {
 public:
  /// Throws std::runtime_error when nobody listens.
  explicit RawClient(const std::string& socket);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  /// False when the other end is gone.
  bool Send(std::string_view bytes);
  bool SendLength(std::uint64_t length);
  /// Everything up to the end of the connection; nothing when that does not come within `limit`.
  std::optional<std::string> ReceiveAll(std::chrono::milliseconds limit = std::chrono::seconds(20));
  /// The message in an answer, taken out of its frame; nothing when there is none.
  std::optional<std::string> ReceiveMessage(std::chrono::milliseconds limit = std::chrono::seconds(20));

 private:
  int fd_;
};

/// A private mount namespace with an empty file system, in it the daemon's socket, its list of indexes, and a volume.
/// The first box of a program makes the namespace.
class SearchBox {
 public:
  SearchBox();
  ~SearchBox();

  const std::string& root() const { return root_; }
  std::string socket() const { return root_ + "/socket"; }
  std::string volume(std::string_view name = "vol") const { return root_ + "/" + std::string(name); }

  /// Starts the daemon and waits until it listens. `arguments` are added to the command line.
  void Start(const std::vector<std::string>& arguments = {});
  /// Sends SIGTERM and waits for the end.
  ProcessResult Stop();
  /// Sends SIGKILL and waits for the end.
  void Kill();
  Subprocess& daemon() { return *daemon_; }

  /// The answer to a request; null when the daemon does not answer.
  Json::Value Ask(const Json::Value& request) const;
  Json::Value Ask(const std::string& command, const Json::Value& data) const;
  /// Sends it again while the answer is that the index is being opened, moved, upgraded or repaired.
  Json::Value AskPatiently(const std::string& command, const Json::Value& data) const;
  /// 0 for success, else the code of the answer; -1 when there is none.
  int CodeOf(const std::string& command, const Json::Value& data) const;

  /// Creates an index with a few fields at volume()/ID.
  void CreateIndex(const std::string& id);
  /// Puts a document there; returns the code.
  int Put(const std::string& id, const std::string& path, const std::string& text) const;
  /// The paths of the documents below a folder.
  std::vector<std::string> PathsBelow(const std::string& id, const std::string& folder) const;

 private:
  TempDir area_;
  std::string root_;
  std::unique_ptr<Subprocess> daemon_;
};

/// One JSON object from text in which ' stands for ".
Json::Value Object(std::string text);
/// The mappings of CreateIndex.
Json::Value SmallMappings();
std::string JsonLine(const Json::Value& value);
/// The path of the built daemon.
std::string SearchDaemonProgram();

}  // namespace orbisk::test
