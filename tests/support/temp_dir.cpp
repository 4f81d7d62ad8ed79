// A directory for one test.
#include "tests/support/temp_dir.h"

#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <vector>

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

std::string UsualParent() {
  const char* parent = getenv("TMPDIR");
  return parent != nullptr && *parent != '\0' ? parent : "/tmp";
}

// Takes away what the test mounted below `path`, innermost first.
void UnmountBelow(const std::string& path) {
  std::ifstream mounts("/proc/self/mounts");
  std::vector<std::string> below;
  std::string device;
  std::string place;
  std::string rest;
  while (mounts >> device >> place && std::getline(mounts, rest)) {
    if (place.compare(0, path.size() + 1, path + "/") == 0) {
      below.push_back(place);
    }
  }
  std::for_each(below.rbegin(), below.rend(), [](const std::string& mount) { umount2(mount.c_str(), MNT_DETACH); });
}

// Folders that a test closed would keep their content from an ordinary user. The iterator enters a folder only after
// the loop's body saw it.
void OpenFolders(const std::string& path) {
  std::error_code ignored;
  for (fs::recursive_directory_iterator entry(path, ignored), end; entry != end; entry.increment(ignored)) {
    if (fs::is_directory(entry->symlink_status(ignored))) {
      fs::permissions(*entry, fs::perms::owner_all, fs::perm_options::add, ignored);
    }
  }
}

}  // namespace

TempDir::TempDir(const std::string& parent) : path_((parent.empty() ? UsualParent() : parent) + "/orbisk-test-XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp " + path_);
  }
}

TempDir::~TempDir() {
  UnmountBelow(path_);
  OpenFolders(path_);
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

void WriteFile(const std::string& path, std::string_view content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  file.close();
  if (!file) {
    throw std::runtime_error("cannot write " + path);
  }
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  if (!file) {
    throw std::runtime_error("cannot read " + path);
  }
  return content.str();
}

}  // namespace orbisk::test
