// A box with shares and the configuration's fixed paths, both private to the test program.
#include "tests/unit/fileindex/config_box.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "orbisk/json.h"
#include "orbisk/sdk/share.h"
#include "tests/support/fake_share.h"
#include "tests/support/private_mounts.h"

namespace orbisk::fileindex::test {
namespace {

namespace fs = std::filesystem;

class PrivatePaths : public testing::Environment {
  void SetUp() override { orbisk::test::EnterPrivateMounts({"/var/packages/Orbisk/etc", "/var/run", "/tmp"}); }
};

// Owned by the test framework.
[[maybe_unused]] const testing::Environment* const private_paths =
    testing::AddGlobalTestEnvironment(std::make_unique<PrivatePaths>().release());

}  // namespace

ConfigBox::ConfigBox() {
  for (const char* const path : {kFoldersFile, kStatusFile, kStatusLock, kDaemonSocket}) {
    fs::remove_all(path);
  }
}

void ConfigBox::AddShare(const std::string& name) {
  fs::create_directories(Full("/" + name));
  orbisk::test::FakeShares().Add(name, Full("/" + name));
  fs::create_directories(fs::path(QueuePath(name)).parent_path());
}

void ConfigBox::MakeFolder(const std::string& share_path) const {
  fs::create_directories(Full(share_path));
}

std::string ConfigBox::QueuePath(const std::string& share) {
  return sdk::SDKShare(share).GetQueuePath();
}

Json::Value Entry(const std::string& path, std::string_view kinds, const std::string& name, const std::string& group) {
  const auto has = [&](char kind) { return kinds.find(kind) != std::string_view::npos; };
  Json::Value entry;
  entry["path"] = path;
  entry["name"] = name.empty() ? path : name;
  entry["document"] = has('d');
  entry["audio"] = has('a');
  entry["video"] = has('v');
  entry["photo"] = has('p');
  if (!group.empty()) {
    entry["group"] = group;
  }
  return entry;
}

std::shared_ptr<Folder> MakeFolder(const std::string& path, std::string_view kinds, const std::string& name,
                                   const std::string& group) {
  return std::make_shared<Folder>(Entry(path, kinds, name, group));
}

std::string KindsOf(const std::shared_ptr<Folder>& folder) {
  if (folder == nullptr) {
    return "null";
  }
  return std::string(folder->IsDocument() ? "d" : "") + (folder->IsAudio() ? "a" : "") +
         (folder->IsVideo() ? "v" : "") + (folder->IsPhoto() ? "p" : "");
}

std::string PathOf(const std::shared_ptr<Folder>& folder) {
  return folder == nullptr ? "null" : folder->GetPath();
}

void WriteFoldersFile(const std::vector<Json::Value>& entries) {
  Json::Value folders(Json::arrayValue);
  for (const Json::Value& entry : entries) {
    folders.append(entry);
  }
  orbisk::test::WriteFile(kFoldersFile, toString(folders));
}

FolderMgr Manager(const std::vector<Json::Value>& entries) {
  WriteFoldersFile(entries);
  return {};
}

std::vector<std::string> PathsOf(const FolderMgr& manager) {
  std::vector<std::string> paths;
  for (const auto& folder : manager.GetFolders()) {
    paths.push_back(folder->GetPath());
  }
  return paths;
}

Json::Value ReadJson(const std::string& path) {
  Json::Value document;
  EXPECT_TRUE(fromFile(document, path)) << path;
  return document;
}

size_t OpenDescriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

}  // namespace orbisk::fileindex::test
