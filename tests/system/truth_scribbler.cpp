// The operations.
#include "tests/system/truth_scribbler.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "orbisk/fileindex/file_type.h"

namespace orbisk::test {

namespace fs = std::filesystem;

namespace {

constexpr char kPreserved[] = ".git";
constexpr size_t kLongestStory = 300;

// In one line, whatever bytes are in it.
std::string Readable(const std::string& text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string readable;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < ' ' || byte > '~') {
      readable += {'\\', 'x', kDigits[byte / 16], kDigits[byte % 16]};
    } else {
      readable += c;
    }
  }
  return readable;
}

}  // namespace

void Scribbler::Step() {
  switch (Pick(15)) {
    case 0:
    case 1:
    case 2:
      return Write(std::ios::trunc);
    case 3:
      return Write(std::ios::app);
    case 4:
      return MakeFolders(Path());
    case 5:
    case 6:
    case 7:
      return Rename(Path(), Path());
    case 8:
      return Remove(Path(), false);
    case 9:
      return Remove(Path(), true);
    case 10:
      return SetMode(Path());
    case 11:
      return Exchange();
    case 12:
      return Link();
    case 13:
      return AddName(Path(), Path());
    default:
      return Pick(2) == 0 ? Rename(Path(), outside_ + "/x") : Rename(outside_ + "/x", Path());
  }
}

// `ignored_` says whether it was done.
template <typename... Part>
void Scribbler::Tell(const Part&... part) {
  if (!ignored_) {
    std::string line;
    ((line += (line.empty() ? "" : " ") + Readable(part)), ...);
    story_.push_back(line);
    if (story_.size() > kLongestStory) {
      story_.pop_front();
    }
  }
}

void Scribbler::MakeFolders(const std::string& path) {
  fs::create_directories(path, ignored_);
  Tell("mkdir", path);
}

void Scribbler::Rename(const std::string& from, const std::string& to) {
  fs::rename(from, to, ignored_);
  Tell("rename", from, to);
}

void Scribbler::Remove(const std::string& path, bool all) {
  all ? fs::remove_all(path, ignored_) : static_cast<uintmax_t>(fs::remove(path, ignored_));
  Tell("remove", path);
}

void Scribbler::SetMode(const std::string& path) {
  fs::permissions(path, static_cast<fs::perms>(0700 + Pick(64)), fs::perm_options::nofollow, ignored_);
  Tell("chmod", path);
}

// Of a file alone: of a link it would be another link.
void Scribbler::AddName(const std::string& from, const std::string& to) {
  struct stat info {};
  if (lstat(from.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return;
  }
  fs::create_hard_link(from, to, ignored_);
  if (!ignored_) {
    shared_.insert({info.st_dev, info.st_ino});
  }
  Tell("link", from, to);
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
  const std::string text = "word" + std::to_string(Pick(10'000)) + " plain";
  ignored_.clear();
  std::ofstream(path, std::ios::binary | mode) << text << "\n";
  Tell("write", path, text);
}

// In one step, or over a third place.
void Scribbler::Exchange() {
  const std::string a = Path();
  const std::string b = Path();
  if (Pick(2) == 0) {
    const bool done = renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
    ignored_ = done ? std::error_code() : std::make_error_code(std::errc::invalid_argument);
    Tell("exchange", a, b);
    return;
  }
  const std::string between = outside_ + "/between";
  Rename(a, between);
  Rename(b, a);
  Rename(between, b);
  Remove(between, true);
}

// To something that need not be there, and never to a folder: nobody shall write through it.
void Scribbler::Link() {
  const std::string path = Path();
  fs::create_symlink("no-such-file", path, ignored_);
  Tell("symlink", path);
}

}  // namespace orbisk::test
