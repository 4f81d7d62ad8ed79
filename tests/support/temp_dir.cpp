// A directory for one test.
#include "tests/support/temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace orbisk::test {
namespace {

std::string UsualParent() {
  const char* parent = getenv("TMPDIR");
  return parent != nullptr && *parent != '\0' ? parent : "/tmp";
}

}  // namespace

TempDir::TempDir(const std::string& parent) : path_((parent.empty() ? UsualParent() : parent) + "/orbisk-test-XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp " + path_);
  }
}

TempDir::~TempDir() {
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
