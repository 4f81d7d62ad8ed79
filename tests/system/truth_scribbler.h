// Random operations on files.
#pragma once

#include <functional>
#include <ios>
#include <random>
#include <string>
#include <system_error>
#include <vector>

namespace orbisk::test {

/// Works on trees of few names, so that they meet often: writes, appends, makes folders, renames, exchanges, moves in,
/// out and between shares, deletes, changes modes, links. Now and then a name is any bytes.
class Scribbler {
 public:
  using Roots = std::function<std::vector<std::string>()>;

  /// `roots` says which folders the trees lie in. `random` outlives it.
  Scribbler(Roots roots, std::string outside, std::mt19937& random)
      : roots_(std::move(roots)), outside_(std::move(outside)), random_(random) {}

  void Step();
  /// A number below `bound`.
  unsigned Pick(unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(random_); }

  /// Whether a path goes through a name that is never indexed.
  static bool IsPreserved(const std::string& path);
  /// Whether its text is wanted only where documents are.
  static bool IsDocument(const std::string& path);

 private:
  std::string Name();
  std::string Path();
  void Write(std::ios::openmode mode);
  void Exchange();
  void Link();

  Roots roots_;
  std::string outside_;
  std::mt19937& random_;
  std::error_code ignored_;
};

}  // namespace orbisk::test
