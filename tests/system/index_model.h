// An index without a search engine: what the delivered operations make of the documents, for comparison with the disk.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "orbisk/fileindex/queue_mgr.h"

namespace orbisk::test {

/// One file or folder, on disk or in the index.
struct Document {
  char kind = ' ';  ///< 'f', 'd', 'l'
  unsigned permissions = 0;
  std::string content;
  uint64_t inode = 0;  ///< with the times and the size: how an indexing daemon knows a document again
  int64_t born_at = 0;
  int64_t size = 0;
  int64_t changed_at = 0;  ///< last change of the content, in nanoseconds
  /// Whether it would be found alike: inode and time do not count.
  bool Equals(const Document& other) const {
    return kind == other.kind && permissions == other.permissions && content == other.content;
  }
};
using Documents = std::map<std::string, Document>;

/// The documents at and below `path` as they are on disk, skipping names in `ignore` with what is below them.
Documents ReadDocuments(const std::string& path, const std::set<std::string>& ignore);

/// Applies operations as an indexing daemon does. An update reads the file, a re-index reads a whole folder, an
/// operation whose file is gone removes the document, a delete whose file is there reads it. All of these see the disk
/// as it is when they are applied, which may be later than the event: so a rename moves a document only if it is what
/// lies at the target now, and has the target read otherwise; and what could not be found is looked for again where a
/// rename brings it. Line by line it never looks into folders that it moves for files that no operation named.
class IndexModel {
 public:
  IndexModel(std::string folder, std::set<std::string> ignore)
      : folder_(std::move(folder)), ignore_(std::move(ignore)) {}

  /// One pass over the queue at `queue`: freeze, fold, apply, delete the side file. The fold delivers operations on
  /// what is below a renamed folder before the rename and under the new path, and renames that follow one another under
  /// the last name; so in one pass what was read is not replaced by what a rename brings, and in the end each rename's
  /// source and target are compared with the disk.
  void Consume(const std::string& queue);

  /// The same without the fold: each line is applied by itself, in order.
  void ConsumeLines(const std::string& queue);

  const Documents& documents() const { return documents_; }
  int crashes() const { return crashes_; }
  int reads() const { return reads_; }

  /// Every raw line consumed and every operation applied, in order, for a failed test.
  const std::vector<std::string>& history() const { return history_; }

 private:
  void TakeHistory(const std::string& side_file);
  void ApplyOperation(const fileindex::OP& op);
  void ApplyLine(const fileindex::Event& event);
  void Delete(const std::string& path);
  void Remove(const std::string& path);
  void RemoveStale(const std::string& path);
  void Read(const std::string& path);
  void ReadTree(const std::string& path);
  void Compare(const std::string& path);
  void Rename(const std::string& from, const std::string& to);
  void MoveOrRead(const std::string& from, const std::string& to);
  void MoveDocuments(const std::string& from, const std::string& to);

  std::string folder_;
  std::set<std::string> ignore_;
  Documents documents_;
  std::set<std::string> fresh_;   // read in this pass
  std::set<std::string> missed_;  // to be read, but gone: the folder they were in may be moved by a later operation
  std::vector<std::string> history_;
  int crashes_ = 0;
  int reads_ = 0;
};

/// The differences, at most `most` of them; empty if there are none.
std::vector<std::string> Differences(const Documents& index, const Documents& disk, size_t most = 10);

}  // namespace orbisk::test
