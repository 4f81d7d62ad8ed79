// An index without a search engine: what the delivered operations make of the documents, for comparison with the disk.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "orbisk/fileindex/queue_mgr.h"

namespace orbisk::test {

/// What is on disk, or thought to be there: path -> kind, permissions and content.
using Documents = std::map<std::string, std::string>;

/// The documents below `folder` as they are on disk, skipping names in `ignore` with what is below them.
Documents ReadDocuments(const std::string& folder, const std::set<std::string>& ignore);

/// Applies operations as an indexing daemon does: an update reads the file, a delete or an operation whose file is gone
/// removes the document (of a rename, both), a rename moves documents and reads the target only if the source has none,
/// a re-index reads a whole folder.
class IndexModel {
 public:
  IndexModel(std::string folder, std::set<std::string> ignore)
      : folder_(std::move(folder)), ignore_(std::move(ignore)) {}

  /// One pass over the queue at `queue`: freeze, fold, apply, delete the side file.
  void Consume(const std::string& queue);

  const Documents& documents() const { return documents_; }
  int crashes() const { return crashes_; }
  int reads() const { return reads_; }
  int renames() const { return renames_; }

  /// Every raw line consumed and every operation applied that names `path` or a folder above it, for a failed test.
  std::string HistoryOf(const std::string& path) const;

 private:
  void Apply(const fileindex::OP& op);
  void Remove(const std::string& path);
  void Read(const std::string& path);
  void ReadTree(const std::string& path);
  void Rename(const std::string& from, const std::string& to);
  bool Known(const std::string& path) const;

  std::string folder_;
  std::set<std::string> ignore_;
  Documents documents_;
  std::vector<std::string> history_;
  int crashes_ = 0;
  int reads_ = 0;
  int renames_ = 0;
};

/// The differences, at most `most` of them; empty if there are none.
std::vector<std::string> Differences(const Documents& index, const Documents& disk, size_t most = 10);

}  // namespace orbisk::test
