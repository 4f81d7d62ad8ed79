// A whole folders file: it is refused by one of our errors, or it is saved as it was read, and its questions are
// answered as comparing every entry answers them.
#include <memory>

#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/json.h"
#include "tests/fuzz/fuzz_box.h"

namespace {

using namespace orbisk::fileindex;
using orbisk::test::Require;
using orbisk::test::Succeeds;

constexpr char kFoldersFile[] = "/var/packages/Orbisk/etc/fileindex.folders";

Json::Value DataOf(const FolderMgr& manager) {
  Json::Value data(Json::arrayValue);
  for (const auto& folder : manager.GetFolders()) {
    data.append(folder->GetData());
  }
  return data;
}

bool Holds(const std::string& outer, const std::string& inner) {
  return (inner + "/").compare(0, outer.size() + 1, outer + "/") == 0;
}

void CompareWithEveryEntry(const FolderMgr& manager, const std::string& full_path) {
  std::shared_ptr<Folder> nearest;
  size_t length = 0;
  for (const auto& folder : manager.GetFolders()) {
    const std::string own = folder->GetFullPath();
    if (Holds(own, full_path) && own.size() > length) {
      nearest = folder;
      length = own.size();
    }
  }
  Require(manager.GetMostSuitableCfg(full_path) == nearest);
  Require(manager.IsFullPathIndexed(full_path) == (nearest != nullptr));
}

void AskAboutEntries(const FolderMgr& manager) {
  // A malformed path or a missing share fails every question behind it.
  Succeeds(
      [&] {
        for (const auto& folder : manager.GetFolders()) {
          const std::string own = folder->GetFullPath();
          for (const std::string& full_path : {own, own + "/x", own + "x", own.substr(0, own.rfind('/'))}) {
            CompareWithEveryEntry(manager, full_path);
          }
          Require(manager.IsFullPathHasOwnCfg(own));
          Require(manager.IsShareIndexed(folder->GetShare()));
        }
      },
      120, 800);
}

void ListEntries(const FolderMgr& manager) {
  for (const char* const sort_by : {"path", "name", "video"}) {
    std::vector<std::shared_ptr<Folder>> page;
    unsigned long total = 0;
    manager.List(page, total, 0, ~0UL, sort_by, "desc", "all", "");
    Require(total == manager.GetFolders().size() && page.size() == total);
  }
}

void DeleteEntries(FolderMgr manager) {
  while (!manager.IsEmpty()) {
    const size_t before = manager.GetFolders().size();
    const std::string path = manager.GetFolders()[0]->GetPath();
    std::shared_ptr<Folder> diff;
    if (!Succeeds([&] { manager.Delete(diff, path); }, 120, 800)) {
      return;
    }
    Require(manager.GetFolders().size() < before && !manager.HasFolder(path));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  const orbisk::test::FuzzBox box;
  orbisk::test::WriteFile(kFoldersFile, {reinterpret_cast<const char*>(data), size});
  std::unique_ptr<FolderMgr> manager;
  if (!Succeeds([&] { manager = std::make_unique<FolderMgr>(); }, 504, 120)) {
    return 0;
  }
  manager->Save();
  Require(DataOf(FolderMgr()) == DataOf(*manager));
  Require(orbisk::test::ReadFile(kFoldersFile) == orbisk::toString(DataOf(*manager)));
  AskAboutEntries(*manager);
  ListEntries(*manager);
  DeleteEntries(*manager);
  return 0;
}
