// A directory for one test.
#pragma once

#include <string>
#include <string_view>

namespace orbisk::test {

/// Makes an empty directory and removes it with all that is in it at destruction; unmounts first what was mounted at
/// it or in it.
class TempDir {
 public:
  /// Below `parent`, which must exist; "" is the usual place ($TMPDIR, or /tmp where that is missing). Throws
  /// std::system_error.
  explicit TempDir(const std::string& parent = "");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  /// The path of `name` in the directory.
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

/// Writes a file anew. Throws std::runtime_error.
void WriteFile(const std::string& path, std::string_view content);
/// The whole content of a file. Throws std::runtime_error when it cannot be read.
std::string ReadFile(const std::string& path);

}  // namespace orbisk::test
