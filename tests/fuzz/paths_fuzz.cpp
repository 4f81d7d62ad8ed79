// Share paths and full paths: what is taken apart fits together again, and nothing but our own errors comes out. The
// input is two paths with a newline between them.
#include "orbisk/fileindex/file_type.h"
#include "orbisk/fileindex/util.h"
#include "tests/fuzz/fuzz_box.h"

namespace {

using namespace orbisk::fileindex;
using orbisk::test::Require;
using orbisk::test::Succeeds;
using std::string;

void TakeApart(const string& path) {
  const bool has_slash = path.find('/') != string::npos;
  Require(has_slash ? Dirname(path) + "/" + Basename(path) == path : Dirname(path) == path && Basename(path) == path);
  const string extension = GetFileExtension(path, false);
  Require(StringStartWith(path, "") && StringStartWith(path, path));
  Require(extension.empty() || path.size() > extension.size());
  Require(extension.empty() || path.compare(path.size() - extension.size() - 1, string::npos, "." + extension) == 0);
  Require(GetFileExtension(path, true).size() == extension.size());
  Require(GetFileTypeByFullPath(path) == GetFileTypeByFullPath("/volume1/photo/" + Basename(path)));
}

void AskAboutSharePath(const string& path, const string& new_share) {
  string share;
  if (!Succeeds([&] { GetShareNameByPath(share, path); }, 120)) {
    Require(path.empty() || path[0] != '/');
    return;
  }
  Require(share.find('/') == string::npos && StringStartWith(path + "/", "/" + share + "/"));
  Succeeds(
      [&] {
        const string replaced = ReplacePathShare(path, new_share, share);
        Require(replaced.size() == path.size() - share.size() + new_share.size());
        Require(StringStartWith(replaced, "/" + new_share));
      },
      120);
  string full_path;
  if (Succeeds([&] { GetFullPath(full_path, path); }, 800)) {
    // The platform takes a name up to its first NUL byte.
    Require(full_path == (string(share.c_str()) == "photo" ? "/volume1" : "/volume2") + path);
  }
  Succeeds([&] { CanPathBeIndexed(path); }, 800, 502);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  const orbisk::test::FuzzBox box;
  const string text(reinterpret_cast<const char*>(data), size);
  const size_t newline = text.find('\n');
  const string first = text.substr(0, newline);
  const string second = newline == string::npos ? "" : text.substr(newline + 1);
  TakeApart(first);
  AskAboutSharePath(first, second);
  Succeeds([&] { Require(CanFullPathBeIndexed(second) == (JudgeFullPath(second) == PathVerdict::kIndexable)); }, 502,
           800);
  IsSystemPreservedFileName(first);
  Succeeds([&] { IsFullPathInRecycleBin(second); }, 502);
  return 0;
}
