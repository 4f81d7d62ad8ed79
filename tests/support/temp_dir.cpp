// A directory for one test.
#include "tests/support/temp_dir.h"

#include <mntent.h>
#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>
#include <vector>

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

// $TMPDIR may be a folder of a /tmp that the test has covered.
std::string UsualParent() {
  const char* parent = getenv("TMPDIR");
  return parent != nullptr && *parent != '\0' && fs::is_directory(parent) ? parent : "/tmp";
}

// Takes away what the test mounted at `path` and below, innermost first.
void UnmountFrom(const std::string& path) {
  const std::unique_ptr<FILE, int (*)(FILE*)> mounts(setmntent("/proc/self/mounts", "re"), endmntent);
  if (mounts == nullptr) {
    return;
  }
  std::vector<std::string> places;
  while (const mntent* const mount = getmntent(mounts.get())) {
    const std::string place = mount->mnt_dir;
    if (place == path || place.compare(0, path.size() + 1, path + "/") == 0) {
      places.push_back(place);
    }
  }
  std::for_each(places.rbegin(), places.rend(), [](const std::string& mount) { umount2(mount.c_str(), MNT_DETACH); });
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
  std::error_code ignored;
  // "" where the directory is gone already, and everything is below that.
  if (const fs::path path = fs::canonical(path_, ignored); !path.empty()) {
    UnmountFrom(path);
  }
  OpenFolders(path_);
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
