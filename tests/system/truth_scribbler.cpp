// The operations.
#include "tests/system/truth_scribbler.h"

#include <fcntl.h>
#include <stdio.h>

#include <filesystem>
#include <fstream>

#include "orbisk/fileindex/file_type.h"

namespace orbisk::test {

namespace fs = std::filesystem;

namespace {

constexpr char kPreserved[] = ".git";

}  // namespace

void Scribbler::Step() {
  switch (Pick(14)) {
    case 0:
    case 1:
    case 2:
      Write(std::ios::trunc);
      break;
    case 3:
      Write(std::ios::app);
      break;
    case 4:
      fs::create_directories(Path(), ignored_);
      break;
    case 5:
    case 6:
    case 7:
      fs::rename(Path(), Path(), ignored_);
      break;
    case 8:
      fs::remove(Path(), ignored_);
      break;
    case 9:
      fs::remove_all(Path(), ignored_);
      break;
    case 10:
      fs::permissions(Path(), static_cast<fs::perms>(0700 + Pick(64)), fs::perm_options::nofollow, ignored_);
      break;
    case 11:
      Exchange();
      break;
    case 12:
      Link();
      break;
    default:
      Pick(2) == 0 ? fs::rename(Path(), outside_ + "/x", ignored_) : fs::rename(outside_ + "/x", Path(), ignored_);
  }
}

bool Scribbler::IsPreserved(const std::string& path) {
  return (path + "/").find(std::string("/") + kPreserved + "/") != std::string::npos;
}

bool Scribbler::IsDocument(const std::string& path) {
  return fileindex::GetFileTypeByFullPath(path) == fileindex::FILE_TYPE_DOCUMENT;
}

std::string Scribbler::Name() {
  static const std::vector<std::string> names = {"a", "b.txt", "c\xff.txt", "d e", "f.md"};
  if (Pick(30) == 0) {
    return kPreserved;
  }
  if (Pick(30) != 0) {
    return names[Pick(static_cast<unsigned>(names.size()))];
  }
  std::string name = "n";
  for (unsigned bytes = 1 + Pick(3); bytes > 0; --bytes) {
    const char byte = static_cast<char>(1 + Pick(255));
    name += byte == '/' ? 'x' : byte;
  }
  return name + (Pick(2) == 0 ? ".txt" : "-");
}

std::string Scribbler::Path() {
  const std::vector<std::string> roots = roots_();
  std::string path = roots[Pick(static_cast<unsigned>(roots.size()))];
  for (unsigned depth = 1 + Pick(4); depth > 0; --depth) {
    path += "/" + Name();
  }
  return path;
}

// Never through a link: what it leads to is another path's business.
void Scribbler::Write(std::ios::openmode mode) {
  const std::string path = Path();
  fs::create_directories(fs::path(path).parent_path(), ignored_);
  if (fs::is_symlink(fs::symlink_status(path, ignored_))) {
    return;
  }
  std::ofstream(path, std::ios::binary | mode) << "word" << Pick(10'000) << " plain\n";
}

// In one step, or over a third place.
void Scribbler::Exchange() {
  const std::string a = Path();
  const std::string b = Path();
  if (Pick(2) == 0) {
    renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
    return;
  }
  const std::string between = outside_ + "/between";
  fs::rename(a, between, ignored_);
  fs::rename(b, a, ignored_);
  fs::rename(between, b, ignored_);
  fs::remove_all(between, ignored_);
}

// To something that need not be there, and never to a folder: nobody shall write through it.
void Scribbler::Link() {
  fs::create_symlink("no-such-file", Path(), ignored_);
}

}  // namespace orbisk::test
