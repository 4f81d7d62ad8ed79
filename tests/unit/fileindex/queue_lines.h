// Event lines in few words, queue files made of them, and what their folding delivers.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "orbisk/fileindex/optree.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/error_of.h"

namespace orbisk::fileindex::test {

using orbisk::test::ErrorOf;

// One line each, without the newline.
std::string Line(int mask, const std::string& path, bool is_dir = false);
std::string Create(const std::string& path);
std::string Modify(const std::string& path);
std::string Attrib(const std::string& path);
std::string Delete(const std::string& path);
std::string CreateFolder(const std::string& path);
std::string DeleteFolder(const std::string& path);
std::string Reindex(const std::string& path);
/// `data` is JSON text.
std::string Switches(const std::string& path, const std::string& data, int more_bits = 0);
std::string Rename(const std::string& from, const std::string& to, int more_bits = 0);
std::string Crash();

/// The lines, each with a newline.
std::string Join(const std::vector<std::string>& lines);

/// A queue file in a folder of its own.
class QueueFile {
 public:
  explicit QueueFile(const std::string& content = "");

  const std::string& path() const { return path_; }
  std::string side_path() const { return path_ + ".tmp"; }

 private:
  orbisk::test::TempDir folder_;
  std::string path_;
};

/// A tree with nothing in it.
std::unique_ptr<OPTree> EmptyTree();

/// A tree into which the lines were inserted one by one. A line that fails throws.
std::unique_ptr<OPTree> TreeOf(const std::vector<std::string>& lines);

void Insert(OPTree& tree, const std::string& line);

/// The printed form of an operation, without ", data=null".
std::string Print(const std::shared_ptr<OP>& op);

/// What a tree delivers, each as Print, and "count=N" as the last.
std::vector<std::string> Deliver(OPTree& tree);

/// What the lines, inserted one by one, deliver.
std::vector<std::string> Fold(const std::vector<std::string>& lines);

/// The paths of all nodes but the root, in the order of the walk.
std::vector<std::string> Places(OPTree& tree);

}  // namespace orbisk::fileindex::test
