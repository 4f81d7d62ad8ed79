// The fake platform's homes.
#include "tests/support/fake_home.h"

#include <filesystem>

#include "tests/support/fake_share.h"
#include "tests/support/fake_string_list.h"
#include "tests/support/fake_user.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

constexpr int kAnyType = 0;

// Not by way of the seam's operations: what a test counts is the library's calls.
bool IsAccount(const std::string& name) {
  NIMOUSER* user = nullptr;
  const bool found = FakeUsers().get.Usual(name.c_str(), &user) == 0;
  FakeUsers().free.Usual(user);
  return found;
}

}  // namespace

FakeHomeService::FakeHomeService()
    : enumerate("NIMORecycleHomeEnumRecyclePath", [this](SZLIST** list) { return Enumerate(list, kAnyType); }),
      enumerate_of("NIMORecycleHomeEnumRecyclePathForAuthType", [this](SZLIST** list, AUTH_TYPE auth) {
        const bool is_known = auth == AUTH_LOCAL || auth == AUTH_DIRECTORY;
        return is_known ? Enumerate(list, static_cast<int>(auth)) : FailPlatform(EINVAL);
      }) {}

void FakeHomeService::AddToDirectory(const std::string& name) {
  const std::lock_guard lock(mutex_);
  directory_.insert(name);
}

void FakeHomeService::Reset() {
  const std::lock_guard lock(mutex_);
  directory_.clear();
}

bool FakeHomeService::IsOf(const std::string& name, int auth) const {
  const std::lock_guard lock(mutex_);
  const bool is_remote = directory_.count(name) != 0;
  return auth == kAnyType || (auth == AUTH_DIRECTORY ? is_remote : !is_remote && IsAccount(name));
}

int FakeHomeService::Enumerate(SZLIST** list, int auth) {
  if (list == nullptr || *list == nullptr) {
    return FailPlatform(EINVAL);
  }
  NIMOSHARE* homes = nullptr;
  if (FakeShares().get.Usual("homes", &homes) != 0) {
    return 0;
  }
  const std::string folder = homes->szPath;
  FakeShares().free.Usual(homes);
  std::set<std::string> names;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(folder, missing)) {
    names.insert(entry.path().filename());
  }
  for (const std::string& name : names) {
    const std::string bin = folder + "/" + name + "/#recycle";
    if (fs::symlink_status(bin, missing).type() == fs::file_type::directory && IsOf(name, auth)) {
      FakeStringLists().Push(list, bin);
    }
  }
  return 0;
}

FakeHomeService& FakeHomes() {
  static auto* const homes = new FakeHomeService;
  return *homes;
}

}  // namespace orbisk::test

int NIMORecycleHomeEnumRecyclePath(SZLIST** list) {
  return orbisk::test::FakeHomes().enumerate(list);
}

int NIMORecycleHomeEnumRecyclePathForAuthType(SZLIST** list, AUTH_TYPE auth) {
  return orbisk::test::FakeHomes().enumerate_of(list, auth);
}
