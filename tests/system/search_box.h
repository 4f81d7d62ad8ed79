// A box with the search daemon and the extractor running, for tests of the whole chain.
#pragma once

#include <json/json.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"
#include "tests/system/fileindexctl_box.h"

namespace orbisk::test {

/// Each test gets daemons of its own, without an index.
class SearchBox : public Box {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Starts the search daemon again on what it has stored, after KillSearchDaemon.
  void StartSearchDaemon();
  /// Ends the search daemon at once, as a crash does.
  void KillSearchDaemon();
  /// SIGSTOP makes it one that takes questions and does nothing, until SIGCONT.
  void SignalSearchDaemon(int signal) { search_->Kill(signal); }
  /// Waits until the index of `share` answers questions, which a daemon that was killed first has to check.
  static void WaitUntilOpen(const std::string& share);
  void StopExtractor();
  /// Ends the extractor at once, and starts another one that knows what it has stored.
  void ReplaceExtractor();
  /// From now on that other one is `program`, with `arguments` more.
  void UseExtractor(const std::string& program, const std::vector<std::string>& arguments);
  /// Ends a worker of the extractor at once. False when there is none.
  bool KillWorker();

  /// Makes a share with an index.
  void AddIndexedShare(const std::string& path);
  /// Makes a file with its folders, and its document.
  static void Index(const std::string& share, const std::string& path, const std::string& content);
  /// The paths that `fileindexctl search` finds, in its order. Fails the test if the command fails.
  static std::vector<std::string> Find(const std::vector<std::string>& arguments);

 private:
  void StartExtractor();

  TempDir state_;
  std::unique_ptr<Subprocess> search_;
  std::unique_ptr<Subprocess> extractor_;
  std::string extractor_program_;  // "": the one that was built
  std::vector<std::string> extractor_arguments_;
};

/// Where the change monitor's registrations are; RoomyBox has the place for itself.
constexpr char kRegistrations[] = "/var/lib/nimotifyd/queues.d";

/// A box for what changes the configuration, which root alone can: nothing is registered with the monitor, and there is
/// a volume with the room that an added folder is asked for.
class RoomyBox : public SearchBox {
 protected:
  void SetUp() override;

  std::string OnRoomy(const std::string& name) const { return roomy_ / name; }

 private:
  const TempDir roomy_;
};

}  // namespace orbisk::test
