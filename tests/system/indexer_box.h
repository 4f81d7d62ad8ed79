// A box on which everything runs: monitor, extractor, search daemon and indexing daemon.
#pragma once

#include <json/json.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/eventually.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"
#include "tests/system/search_box.h"

namespace orbisk::test {

/// What the index, or the disk, has of one path.
struct Indexed {
  bool is_folder = false;
  std::string permissions;
  std::string text;        ///< of a file, without white space at the end
  bool is_shared = false;  ///< with other names, through which it may be changed: then only that it is there counts
  bool operator==(const Indexed& other) const;
};
using IndexedTree = std::map<std::string, Indexed>;
std::ostream& operator<<(std::ostream& stream, const Indexed& indexed);

/// Each test gets daemons of its own. The share "docs" on the first volume is indexed as a whole.
class IndexerBox : public SearchBox {
 protected:
  static void SetUpTestSuite();
  void SetUp() override;
  void TearDown() override;

  std::string Docs(const std::string& name = "") const { return OnFirst(name.empty() ? "docs" : "docs/" + name); }

  /// Where the share is made, in place of the box's small volume; an empty file system of 1 GiB.
  virtual void MountVolume();
  std::string Volume() const { return OnFirst("").substr(0, OnFirst("").size() - 1); }

  void StartMonitor();
  void KillMonitor();
  void StartIndexer(const std::vector<std::string>& arguments = {});
  /// The same with one file, which is indexed then: nothing is left to be done.
  void StartWithOneFile(const std::vector<std::string>& arguments = {});
  void KillIndexer();
  /// Asks it to end; its exit status.
  int StopIndexer();
  /// What the indexing daemons have logged lately.
  std::string IndexerLog() const;
  Subprocess& indexer() { return *indexer_; }
  /// How many records of `event` the indexing daemons of this test have written.
  int CountRecords(const std::string& event) const;

  /// Sends one command to the indexing daemon; its answer.
  static Json::Value Command(const std::string& type, const Json::Value& data = Json::Value());
  /// What "status" says of the share.
  static Json::Value StatusOf(const std::string& share = "docs");
  /// Whether the share's worker has nothing to do, and every event has been taken.
  static bool IsIdle();
  /// Whether events wait that nobody has taken.
  static bool HasQueued(const std::string& share = "docs");
  static Json::Value About(const std::string& share);

  /// The documents of the share as searches see them. Empty when the search daemon does not answer.
  IndexedTree InIndex(const std::string& share = "docs") const;
  /// The files and folders that are on disk at and below the share's folder on the first volume, links left out.
  IndexedTree OnDisk(const std::string& share = "docs") const;
  /// Waits until the two are equal; what differs, if they do not become so.
  testing::AssertionResult BecomesEqual(std::chrono::milliseconds limit = std::chrono::seconds(30),
                                        const std::string& share = "docs") const;
  /// The same for what `wanted` says; it is asked once.
  testing::AssertionResult BecomesEqualTo(const std::function<IndexedTree()>& wanted, std::chrono::milliseconds limit,
                                          const std::string& share) const;

 private:
  TempDir logs_;
  std::unique_ptr<Subprocess> monitor_;
  std::unique_ptr<Subprocess> indexer_;
};

}  // namespace orbisk::test
