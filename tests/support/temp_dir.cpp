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

}  // namespace

TempDir::TempDir(const std::string& parent) : path_((parent.empty() ? UsualParent() : parent) + "/orbisk-test-XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp " + path_);
  }
}

TempDir::~TempDir() {
  UnmountBelow(path_);
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
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
