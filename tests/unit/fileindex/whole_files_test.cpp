// Readers take no lock: while another process saves without a pause, they never see half a file.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/json.h"
#include "tests/unit/fileindex/config_box.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FakePlatform;
using orbisk::test::WriteFile;

constexpr int kSaves = 10000;
constexpr int kManyEntries = 100;

std::vector<Json::Value> Entries(int count) {
  std::vector<Json::Value> entries;
  for (int i = 0; i < count; ++i) {
    entries.push_back(Entry("/photo/" + std::to_string(i)));
  }
  return entries;
}

// A status whose pause tells how many shares it lists.
StatusMgr StatusOf(int shares) {
  Json::Value document;
  document["resume_time"] = shares;
  for (int i = 0; i < shares; ++i) {
    document["share"][std::to_string(i)] = 1;
  }
  WriteFile(kStatusFile, toString(document));
  return {};
}

// A process of its own that runs `save` with 0, 1, 2 and so on. True from HasEnded when it has run to its end.
class Saver {
 public:
  explicit Saver(const std::function<void(int)>& save) : pid_(fork()) {
    if (pid_ == 0) {
      alarm(120);  // the test's own limit is not inherited
      try {
        for (int i = 0; i < kSaves; ++i) {
          save(i);
          FakePlatform::Reset();  // or the calls would pile up
        }
      } catch (...) {
        _exit(1);
      }
      _exit(0);
    }
  }
  ~Saver() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Saver(const Saver&) = delete;
  Saver& operator=(const Saver&) = delete;

  bool HasEnded() {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_) {
      return false;
    }
    pid_ = -1;
    EXPECT_EQ(0, status) << "saving failed";
    return true;
  }

 private:
  pid_t pid_;
};

TEST(WholeFiles, TheConfigurationIsReadWholeWhileItIsSaved) {
  const ConfigBox box;
  const FolderMgr many = Manager(Entries(kManyEntries));
  const FolderMgr few = Manager(Entries(1));
  Saver saver([&](int i) { (i % 2 == 0 ? many : few).Save(); });

  int reads_of_few = 0;
  int reads_of_many = 0;
  while (!saver.HasEnded()) {
    const size_t count = FolderMgr().GetFolders().size();
    ASSERT_TRUE(count == 1 || count == kManyEntries) << count;
    ++(count == 1 ? reads_of_few : reads_of_many);
  }
  EXPECT_LT(10, reads_of_few);
  EXPECT_LT(10, reads_of_many);
}

TEST(WholeFiles, TheStatusIsReadWholeWhileItIsSaved) {
  const ConfigBox box;
  StatusMgr many = StatusOf(kManyEntries);
  StatusMgr few = StatusOf(1);
  Saver saver([&](int i) { (i % 2 == 0 ? many : few).Save(); });

  int reads_of_few = 0;
  int reads_of_many = 0;
  while (!saver.HasEnded()) {
    const StatusMgr status;
    const long shares = status.GetPauseInfo();
    ASSERT_TRUE(shares == 1 || shares == kManyEntries) << shares;
    ASSERT_EQ(1, status.GetShareStatus(std::to_string(shares - 1)));
    ++(shares == 1 ? reads_of_few : reads_of_many);
  }
  EXPECT_LT(10, reads_of_few);
  EXPECT_LT(10, reads_of_many);
}

}  // namespace
}  // namespace orbisk::fileindex::test
