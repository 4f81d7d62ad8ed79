// Who wants the changes of which folder.
#include "services/monitor/scope.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/temp_dir.h"

namespace nimotifyd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class ScopeTest : public testing::Test {
 protected:
  void Add(const std::string& queue, std::vector<WatchEntry> entries) {
    registrations_.push_back({"app", queue, std::move(entries)});
    sinks_.try_emplace(queue, std::make_unique<QueueSink>(queue, 1000));
  }
  // "queue:mask" of each entry that wants changes in `path`.
  std::vector<std::string> At(const std::string& path) {
    const Scopes scopes(registrations_, sinks_);
    std::vector<std::string> result;
    for (const ScopeEntry* entry : scopes.EntriesAt(path)) {
      result.push_back(entry->sink->path() + ":" + std::to_string(entry->mask));
    }
    return result;
  }

  std::vector<Registration> registrations_;
  std::unordered_map<std::string, std::unique_ptr<QueueSink>> sinks_;
};

TEST_F(ScopeTest, FolderAndEverythingBelowItIsWanted) {
  Add("/q", {{"/v/s", 1, {}}});

  EXPECT_THAT(At("/v/s"), ElementsAre("/q:1"));
  EXPECT_THAT(At("/v/s/a/b"), ElementsAre("/q:1"));
}

TEST_F(ScopeTest, NeighboursAndParentsAreNotWanted) {
  Add("/q", {{"/v/s", 1, {}}});

  EXPECT_THAT(At("/v"), IsEmpty());
  EXPECT_THAT(At("/v/ss"), IsEmpty());
  EXPECT_THAT(At("/v/s2/a"), IsEmpty());
  EXPECT_THAT(At("/"), IsEmpty());
}

TEST_F(ScopeTest, RootOfTheFileSystemCanBeRegistered) {
  Add("/q", {{"/", 1, {"skip"}}});

  EXPECT_THAT(At("/"), ElementsAre("/q:1"));
  EXPECT_THAT(At("/a/b"), ElementsAre("/q:1"));
  EXPECT_THAT(At("/skip/b"), IsEmpty());
}

TEST_F(ScopeTest, IgnoredNamesAreSkippedAtAnyDepthWithWhatIsBelow) {
  Add("/q", {{"/v/s", 1, {"@eaDir"}}});

  EXPECT_THAT(At("/v/s/@eaDir"), IsEmpty());
  EXPECT_THAT(At("/v/s/a/@eaDir/b"), IsEmpty());
  EXPECT_THAT(At("/v/s/@eaDir2"), ElementsAre("/q:1"));
}

TEST_F(ScopeTest, IndexAreaIsSkippedAlsoIfNobodyIgnoresIt) {
  Add("/q", {{"/v", 1, {}}});

  EXPECT_THAT(At("/v/@fileindex"), IsEmpty());
  EXPECT_THAT(At("/v/@fileindex/s/db"), IsEmpty());
}

TEST_F(ScopeTest, ComponentsAboveTheRegisteredFolderDoNotCount) {
  Add("/q", {{"/@eaDir/@fileindex/s", 1, {"@eaDir"}}});

  EXPECT_THAT(At("/@eaDir/@fileindex/s/a"), ElementsAre("/q:1"));
}

TEST_F(ScopeTest, InnermostFolderDecidesForItsQueue) {
  Add("/q", {{"/v/s", 1, {}}, {"/v/s/in", 2, {"no"}}});

  EXPECT_THAT(At("/v/s/other"), ElementsAre("/q:1"));
  EXPECT_THAT(At("/v/s/in"), ElementsAre("/q:2"));
  EXPECT_THAT(At("/v/s/in/a"), ElementsAre("/q:2"));
  EXPECT_THAT(At("/v/s/in/no"), IsEmpty());
}

TEST_F(ScopeTest, InnerFolderIsWantedAlsoBelowAnIgnoredName) {
  Add("/q", {{"/v/s", 1, {"no"}}, {"/v/s/no/in", 2, {}}});

  EXPECT_THAT(At("/v/s/no"), IsEmpty());
  EXPECT_THAT(At("/v/s/no/in/a"), ElementsAre("/q:2"));
}

TEST_F(ScopeTest, EachQueueDecidesByItself) {
  Add("/q", {{"/v/s", 1, {}}});
  Add("/r", {{"/v/s/in", 2, {}}});

  EXPECT_THAT(At("/v/s/in/a"), UnorderedElementsAre("/q:1", "/r:2"));
}

TEST_F(ScopeTest, TwoRegistrationsOfOneQueueAndFolderWantWhatEitherWants) {
  Add("/q", {{"/v/s", 1, {"a", "b"}}});
  Add("/q", {{"/v/s", 4, {"b", "c"}}});

  EXPECT_THAT(At("/v/s/a"), ElementsAre("/q:5"));
  EXPECT_THAT(At("/v/s/b"), IsEmpty());
}

TEST_F(ScopeTest, QueueFilesAndTheirSideFilesAreKnown) {
  Add("/v/s/queue", {{"/v/s", 1, {}}});
  const Scopes scopes(registrations_, sinks_);

  EXPECT_TRUE(scopes.HoldsQueueFiles("/v/s"));
  EXPECT_FALSE(scopes.HoldsQueueFiles("/v"));
  EXPECT_TRUE(scopes.IsQueueFile("/v/s/queue"));
  EXPECT_TRUE(scopes.IsQueueFile("/v/s/queue.tmp"));
  EXPECT_FALSE(scopes.IsQueueFile("/v/s/queue.tmp2"));
}

TEST_F(ScopeTest, QueueFilesAreKnownUnderTheFolderThatTheirLinkedPathLeadsTo) {
  const orbisk::test::TempDir folder;
  std::filesystem::create_directory(folder / "real");
  std::filesystem::create_directory_symlink(folder / "real", folder / "link");
  Add(folder / "link/queue", {{folder / "real", 1, {}}});
  const Scopes scopes(registrations_, sinks_);

  for (const std::string name : {"real", "link"}) {
    EXPECT_TRUE(scopes.HoldsQueueFiles(folder / name)) << name;
    EXPECT_TRUE(scopes.IsQueueFile(folder / name + "/queue")) << name;
    EXPECT_TRUE(scopes.IsQueueFile(folder / name + "/queue.tmp")) << name;
  }
}

}  // namespace
}  // namespace nimotifyd
