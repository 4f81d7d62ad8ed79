// Random operations on files.
#pragma once

#include <sys/types.h>

#include <deque>
#include <functional>
#include <ios>
#include <random>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace orbisk::test {

/// Works on trees of few names, so that they meet often: writes, appends, makes folders, renames, exchanges, moves in,
/// out and between shares, deletes, changes modes, links, gives files more names. Now and then a name is any bytes.
class Scribbler {
 public:
  using Roots = std::function<std::vector<std::string>()>;

  /// `roots` says which folders the trees lie in. `random` outlives it.
  Scribbler(Roots roots, std::string outside, std::mt19937& random)
      : roots_(std::move(roots)), outside_(std::move(outside)), random_(random) {}

  void Step();
  /// Whether the file with these numbers has had several names: what is written through one of them is reported there.
  bool WasShared(dev_t device, ino_t inode) const { return shared_.count({device, inode}) != 0; }
  /// What was done last, for a failed test.
  const std::deque<std::string>& story() const { return story_; }
  /// A number below `bound`.
  unsigned Pick(unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(random_); }

  /// Whether a path goes through a name that is never indexed.
  static bool IsPreserved(const std::string& path);
  /// Whether its text is wanted only where documents are.
  static bool IsDocument(const std::string& path);

 private:
  std::string Name();
  std::string Path();
  void MakeFolders(const std::string& path);
  void Rename(const std::string& from, const std::string& to);
  void Remove(const std::string& path, bool all);
  void SetMode(const std::string& path);
  void AddName(const std::string& from, const std::string& to);
  void Write(std::ios::openmode mode);
  void Exchange();
  void Link();
  template <typename... Part>
  void Tell(const Part&... part);

  Roots roots_;
  std::string outside_;
  std::mt19937& random_;
  std::error_code ignored_;
  std::set<std::pair<dev_t, ino_t>> shared_;
  std::deque<std::string> story_;
};

}  // namespace orbisk::test
