// What is kept of failures from one daemon to the next.
#include "services/extractor/failure_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>

#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"

namespace extractor {
namespace {

using orbisk::test::ReadFile;
using orbisk::test::WriteFile;

FailureStore::Content ContentCalled(uint64_t inode) {
  Attributes attributes;
  attributes.inode = inode;
  attributes.size_bytes = 10;
  attributes.modified = -1;
  attributes.changed_ns = 999'999'999;
  return {FailureList::IdentityOf(attributes), "/v/" + std::to_string(inode) + " \"\n\xff"};
}

class FailureStoreTest : public testing::Test {
 protected:
  std::string folder() const { return area_ / "state"; }
  FailureStore Open(const std::string& reader = "one", size_t most = 100) const { return {folder(), reader, most}; }

  // As a daemon leaves it that is killed while `contents` are in work.
  void DieOver(const std::vector<uint64_t>& contents) const {
    std::string in_work;
    {
      FailureStore store = Open();
      std::vector<std::unique_ptr<FailureStore::InWork>> work;
      for (const uint64_t content : contents) {
        work.push_back(std::make_unique<FailureStore::InWork>(store, ContentCalled(content)));
      }
      in_work = ReadFile(folder() + "/in-work");
    }
    WriteFile(folder() + "/in-work", in_work);
  }

  orbisk::test::TempDir area_;
};

TEST_F(FailureStoreTest, FindsWhatTheOneBeforeItAdded) {
  Open().Add(ContentCalled(1), {Outcome::Kind::kDeadline, "slow"});

  const FailureStore store = Open();

  const FailureList::Failure* found = store.Find(ContentCalled(1).identity);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->kind, Outcome::Kind::kDeadline);
  EXPECT_EQ(found->message, "slow");
  EXPECT_EQ(found->path, ContentCalled(1).path);
  EXPECT_EQ(store.Find(ContentCalled(2).identity), nullptr);
}

TEST_F(FailureStoreTest, ForgetsWhatAnotherReaderFailedAt) {
  Open("one").Add(ContentCalled(1), {});

  EXPECT_EQ(Open("two").Find(ContentCalled(1).identity), nullptr);
  EXPECT_EQ(Open("one").Find(ContentCalled(1).identity), nullptr) << "it was written away";
}

TEST_F(FailureStoreTest, SuspectsWhatWasInWorkAtTheEndOfTheOneBeforeIt) {
  DieOver({1, 2});

  std::optional<FailureStore> store(std::in_place, folder(), "one", 100);

  EXPECT_TRUE(store->IsSuspect(ContentCalled(1).identity));
  EXPECT_TRUE(store->IsSuspect(ContentCalled(2).identity));
  EXPECT_FALSE(store->IsSuspect(ContentCalled(3).identity));
  EXPECT_EQ(store->size(), 0U);
  store.reset();
  EXPECT_EQ(Open().suspects(), 2U) << "it is still known at the next start";
}

TEST_F(FailureStoreTest, CountsAsFailedWhatWasInWorkTwice) {
  DieOver({1, 2});
  DieOver({2});

  std::optional<FailureStore> store(std::in_place, folder(), "one", 100);

  EXPECT_TRUE(store->IsSuspect(ContentCalled(1).identity));
  EXPECT_FALSE(store->IsSuspect(ContentCalled(2).identity));
  ASSERT_NE(store->Find(ContentCalled(2).identity), nullptr);
  EXPECT_EQ(store->Find(ContentCalled(2).identity)->kind, Outcome::Kind::kDied);
  store.reset();
  EXPECT_NE(Open().Find(ContentCalled(2).identity), nullptr);
}

TEST_F(FailureStoreTest, SuspectsNoMoreWhatCameBack) {
  DieOver({1});
  Open().Acquit(ContentCalled(1).identity);
  DieOver({1});

  const FailureStore store = Open();

  EXPECT_TRUE(store.IsSuspect(ContentCalled(1).identity));
  EXPECT_EQ(store.Find(ContentCalled(1).identity), nullptr);
}

TEST_F(FailureStoreTest, SuspectsNothingThatIsNoMoreInWork) {
  std::string in_work;
  {
    FailureStore store = Open();
    std::optional<FailureStore::InWork> first(std::in_place, store, ContentCalled(1));
    const FailureStore::InWork second(store, ContentCalled(2));
    first.reset();
    const FailureStore::InWork third(store, ContentCalled(3));
    in_work = ReadFile(folder() + "/in-work");
  }
  WriteFile(folder() + "/in-work", in_work);

  const FailureStore store = Open();

  EXPECT_FALSE(store.IsSuspect(ContentCalled(1).identity));
  EXPECT_TRUE(store.IsSuspect(ContentCalled(2).identity));
  EXPECT_TRUE(store.IsSuspect(ContentCalled(3).identity));
}

TEST_F(FailureStoreTest, KeepsWhatStandsBeforeALineThatWasCut) {
  Open().Add(ContentCalled(1), {});
  Open().Add(ContentCalled(2), {});
  const std::string whole = ReadFile(folder() + "/failures");
  WriteFile(folder() + "/failures", whole.substr(0, whole.size() - 5));

  Open().Add(ContentCalled(3), {});

  const FailureStore store = Open();
  EXPECT_NE(store.Find(ContentCalled(1).identity), nullptr);
  EXPECT_NE(store.Find(ContentCalled(3).identity), nullptr);
}

TEST_F(FailureStoreTest, OpensWhateverTheFilesHold) {
  for (const std::string text :
       {"", "\n\n", "x", "{}", R"({"reader":"one"})", "{\"reader\":1}\n", "{\"reader\":\"one\"}\n[]\n{\"content\":1}\n",
        "{\"reader\":\"one\"}\n{\"content\":[1,2,3,4,5,\"x\"],\"kind\":\"died\"}\n{\"content\":[1,2,3,4,5,6],\"kind\":"
        "7}\n"}) {
    std::filesystem::create_directories(folder());
    WriteFile(folder() + "/failures", text);
    WriteFile(folder() + "/in-work", text);

    Open().Add(ContentCalled(1), {});

    EXPECT_NE(Open().Find(ContentCalled(1).identity), nullptr) << text;
  }
}

TEST_F(FailureStoreTest, DoesNotGrowWithoutEnd) {
  std::optional<FailureStore> store(std::in_place, folder(), "one", 10);

  for (uint64_t i = 0; i < 500; ++i) {
    store->Add(ContentCalled(i), {});
  }

  EXPECT_EQ(store->size(), 10U);
  EXPECT_LT(std::filesystem::file_size(folder() + "/failures"), 30'000U);
  store.reset();
  EXPECT_NE(Open().Find(ContentCalled(499).identity), nullptr);
}

TEST_F(FailureStoreTest, LetsNobodyElseReadThePaths) {
  Open();

  struct stat attributes {};
  ASSERT_EQ(stat(folder().c_str(), &attributes), 0);

  EXPECT_EQ(attributes.st_mode & 0777, 0700U);
}

TEST_F(FailureStoreTest, RemembersInMemoryWhereItCannotWrite) {
  WriteFile(folder(), "a file, no folder");
  FailureStore store = Open();

  store.Add(ContentCalled(1), {});
  const FailureStore::InWork work(store, ContentCalled(2));

  EXPECT_NE(store.Find(ContentCalled(1).identity), nullptr);
}

// Bounds the size of files as a full disk does.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{bytes, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit before_{};
  void (*handler_)(int);
};

size_t TimesNotKept(const orbisk::test::RecordCapture& log) {
  const std::vector<std::string> texts = log.texts();
  return static_cast<size_t>(std::count_if(texts.begin(), texts.end(), [](const std::string& text) {
    return text.find("event=failures_not_kept") != std::string::npos;
  }));
}

TEST_F(FailureStoreTest, LeavesNothingInWorkOnceItCanWriteNoMore) {
  const orbisk::test::RecordCapture log;
  {
    FailureStore store = Open();
    const FailureStore::InWork work(store, ContentCalled(1));
    errno = EBADF;
    {
      const FileSizeLimit limit(std::filesystem::file_size(folder() + "/failures") + 20);
      store.Add(ContentCalled(2), {});
    }
    EXPECT_EQ(ReadFile(folder() + "/in-work"), "");
  }
  EXPECT_EQ(TimesNotKept(log), 1U);
  EXPECT_THAT(log.texts(), testing::Contains(testing::HasSubstr("No space left on device")));
  EXPECT_EQ(Open().suspects(), 0U);
}

TEST_F(FailureStoreTest, SuspectsInMemoryWhatWasLeftWhereItCanWriteNoMore) {
  DieOver({1});
  std::filesystem::create_directory(folder() + "/failures.new");
  const orbisk::test::RecordCapture log;

  FailureStore store = Open("another");

  EXPECT_EQ(TimesNotKept(log), 1U);
  EXPECT_TRUE(store.IsSuspect(ContentCalled(1).identity));
  store.Acquit(ContentCalled(1).identity);
  EXPECT_EQ(store.suspects(), 0U);
}

TEST_F(FailureStoreTest, LeavesTheFilesOfAnotherThatRunsAlone) {
  FailureStore first = Open();
  const FailureStore::InWork work(first, ContentCalled(3));
  FailureStore second = Open("another");

  second.Add(ContentCalled(2), {});
  first.Add(ContentCalled(1), {});

  EXPECT_NE(second.Find(ContentCalled(2).identity), nullptr);
  EXPECT_THAT(ReadFile(folder() + "/failures"), testing::Not(testing::HasSubstr("another")));
  EXPECT_NE(ReadFile(folder() + "/in-work"), "");
}

}  // namespace
}  // namespace extractor
