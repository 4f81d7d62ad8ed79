// The status of many folders in one call: the answers and the errors of asking each by itself, reading each file once.
#include "fileindex/folder_status.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <map>
#include <random>

#include "orbisk/error.h"
#include "orbisk/fileindex/queue_mgr.h"
#include "orbisk/json.h"
#include "orbisk/sdk/share.h"
#include "tests/support/fake_time.h"
#include "tests/unit/fileindex/config_box.h"
#include "tests/unit/fileindex/queue_lines.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FakeTime;
using orbisk::test::WriteFile;
using Folders = std::vector<std::shared_ptr<Folder>>;
using Paths = std::vector<std::string>;

Json::Value AskForStatus() {
  Json::Value additional(Json::arrayValue);
  additional.append("status");
  return additional;
}

Folders FoldersAt(const Paths& paths) {
  Folders folders;
  for (const std::string& path : paths) {
    folders.push_back(MakeFolder(path));
  }
  return folders;
}

// What the call says: its answer, or its Error.
std::string AskTogether(const Paths& paths) {
  std::string text;
  const std::string error = ErrorOf([&] { text = toString(GetDataWithAdditional(FoldersAt(paths), AskForStatus())); });
  return error == "none" ? text : error;
}

std::string AskEach(const Paths& paths) {
  Json::Value answer(Json::arrayValue);
  const std::string error = ErrorOf([&] {
    for (const auto& folder : FoldersAt(paths)) {
      answer.append(folder->GetDataWithAdditional(AskForStatus()));
    }
  });
  return error == "none" ? toString(answer) : error;
}

// The question word for word, without what the reader keeps.
bool IsIndexingByItself(const Folder& folder) {
  const sdk::SDKShare share(folder.GetShare());
  QueueMgr queue(share.GetQueuePath());
  return queue.IsFullPathProcessing(folder.GetFullPath());
}

// Counts how often files of one folder are opened, by name. The kernel merges equal notices in a row, so reads are
// noticed as well: opening a file, reading it and opening it again makes two.
class OpenCounter {
 public:
  explicit OpenCounter(const std::string& folder) : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    EXPECT_LE(0, inotify_add_watch(fd_, folder.c_str(), IN_OPEN | IN_ACCESS | IN_CLOSE));
  }
  ~OpenCounter() { close(fd_); }
  OpenCounter(const OpenCounter&) = delete;
  OpenCounter& operator=(const OpenCounter&) = delete;

  /// Opens since the last call.
  std::map<std::string, int> Take() const {
    std::map<std::string, int> opens;
    alignas(inotify_event) std::array<char, 1 << 16> buffer{};
    for (ssize_t size = 0; (size = read(fd_, buffer.data(), buffer.size())) > 0;) {
      for (const char* at = buffer.data(); at < buffer.data() + size;) {
        const auto* const event = reinterpret_cast<const inotify_event*>(at);
        if ((event->mask & IN_OPEN) != 0 && event->len > 0) {
          ++opens[event->name];
        }
        at += sizeof(inotify_event) + event->len;
      }
    }
    return opens;
  }

 private:
  const int fd_;
};

class ManyFolders : public testing::Test {
 protected:
  ManyFolders() {
    box_.AddShare("photo");
    box_.AddShare("music");
    for (const char* const path : {"/photo/a/b", "/photo/ab", "/photo/c", "/music/a"}) {
      box_.MakeFolder(path);
    }
  }

  static std::string QueueOf(const std::string& share) { return ConfigBox::QueuePath(share); }
  static std::string FolderOf(const std::string& path) { return std::filesystem::path(path).parent_path(); }
  static std::string NameOf(const std::string& path) { return std::filesystem::path(path).filename(); }

  ConfigBox box_;
  const FakeTime time_{1000};
};

TEST_F(ManyFolders, NoFoldersIsAnEmptyArrayWhateverIsAskedFor) {
  EXPECT_EQ("[]", toString(GetDataWithAdditional(Folders(), AskForStatus())));
  EXPECT_EQ("[]", toString(GetDataWithAdditional(Folders(), Json::Value("no array"))));
}

TEST_F(ManyFolders, WithoutAnythingAskedForNoFileIsRead) {
  WriteFile(kStatusFile, "{");
  WriteFile(QueueOf("photo"), "{\n");
  const Json::Value answer = GetDataWithAdditional(FoldersAt({"/photo/a", "/gone"}), Json::Value(Json::arrayValue));
  ASSERT_EQ(2U, answer.size());
  EXPECT_EQ(Folder(Entry("/gone")).GetData(), answer[1]);
}

TEST_F(ManyFolders, ABadQuestionIsRefusedAsForOne) {
  Json::Value unknown(Json::arrayValue);
  unknown.append("size");
  EXPECT_EQ("120 Unknown additioal: size", ErrorOf([&] { GetDataWithAdditional(FoldersAt({"/photo/a"}), unknown); }));
  EXPECT_EQ("120 7", ErrorOf([&] { GetDataWithAdditional(FoldersAt({"/photo/a"}), Json::Value(7)); }));
}

TEST_F(ManyFolders, EachHasItsStatusInOrder) {
  WriteFile(QueueOf("photo"), Join({Create(box_.Full("/photo/ab/x")), Create(box_.Full("/photo/a/b"))}));
  WriteFile(kStatusFile, R"({"share":{"music":1}})");
  const Json::Value answer = GetDataWithAdditional(
      FoldersAt({"/photo/c", "/photo/a", "/music/a", "/photo/a/b", "/photo/none", "/photo/ab"}), AskForStatus());
  Paths texts;
  for (const Json::Value& folder : answer) {
    texts.push_back(folder["path"].asString() + " " + folder["additional"]["status"]["text"].asString());
  }
  EXPECT_EQ(Paths({"/photo/c finished", "/photo/a processing", "/music/a need_reindex", "/photo/a/b processing",
                   "/photo/none error", "/photo/ab processing"}),
            texts);
}

TEST_F(ManyFolders, TheFirstErrorInOrderGoesOut) {
  WriteFile(QueueOf("photo"), Join({Create(box_.Full("/photo/a")), "{bad"}));
  EXPECT_EQ("906 Malformed event_raw: {bad", AskTogether({"/photo/a", "/photo/c", "/gone"}));
  EXPECT_EQ("800 gone", AskTogether({"/photo/a", "/gone", "/photo/c"}));
  EXPECT_EQ("120 ", AskTogether({"/photo/a", "malformed", "/photo/c"}));
}

TEST_F(ManyFolders, AMalformedOrMissingNeighbourDoesNotFailAFolderBeforeIt) {
  WriteFile(QueueOf("photo"), Join({Create(box_.Full("/photo/a"))}));
  const Folders folders = FoldersAt({"/photo/a", "malformed", "", "/gone/x", "photo/a"});
  FolderStatusReader reader({folders[0].get(), folders[1].get(), folders[2].get(), folders[3].get(), folders[4].get()});
  EXPECT_TRUE(reader.IsIndexing(*folders[0]));
  EXPECT_EQ("120 ", ErrorOf([&] { reader.IsIndexing(*folders[1]); }));
  EXPECT_EQ("800 gone", ErrorOf([&] { reader.IsIndexing(*folders[3]); }));
}

TEST_F(ManyFolders, EachFileIsOpenedOnce) {
  const Paths paths = {"/photo/a", "/photo/ab", "/photo/c", "/photo/a/b"};
  WriteFile(QueueOf("photo"), Join({Create(box_.Full("/photo/x"))}));
  WriteFile(QueueOf("photo") + ".tmp", Join({Create(box_.Full("/photo/a/f")), Create(box_.Full("/photo/y"))}));
  WriteFile(kStatusFile, "{}");
  const OpenCounter queues(FolderOf(QueueOf("photo")));
  const OpenCounter configuration(FolderOf(kStatusFile));
  const std::string queue = NameOf(QueueOf("photo"));

  const std::string each = AskEach(paths);
  EXPECT_EQ(4, queues.Take()[queue]) << "the counter sees every open";
  EXPECT_EQ(4, configuration.Take()[NameOf(kStatusFile)]);

  EXPECT_EQ(each, AskTogether(paths));
  const auto opens = queues.Take();
  EXPECT_EQ(1, opens.at(queue));
  EXPECT_EQ(1, opens.at(queue + ".tmp"));
  EXPECT_EQ(1, configuration.Take()[NameOf(kStatusFile)]);
}

TEST_F(ManyFolders, ASideFileThatNoQuestionNeedsIsNotOpened) {
  WriteFile(QueueOf("photo"), Join({Create(box_.Full("/photo/a/f")), Create(box_.Full("/photo/ab"))}));
  WriteFile(QueueOf("photo") + ".tmp", "{bad\n");
  const OpenCounter queues(FolderOf(QueueOf("photo")));
  EXPECT_EQ(AskEach({"/photo/ab", "/photo/a"}), AskTogether({"/photo/ab", "/photo/a"}));
  EXPECT_EQ(0U, queues.Take().count(NameOf(QueueOf("photo")) + ".tmp"));
}

TEST_F(ManyFolders, AQueueThatCannotBeOpenedFailsEveryQuestion) {
  const Folders folders = FoldersAt({"/photo/a", "/photo/c"});
  WriteFile(QueueOf("photo"), "");
  // Too many descriptors are open for one more.
  FolderStatusReader reader({folders[0].get(), folders[1].get()});
  std::vector<int> taken;
  while (true) {
    const int fd = dup(STDIN_FILENO);
    if (fd < 0) {
      break;
    }
    taken.push_back(fd);
  }
  std::vector<std::string> errors;
  for (int i = 0; i < 2; ++i) {
    errors.push_back(ErrorOf([&] { reader.IsIndexing(*folders[0]); }));
  }
  for (const int fd : taken) {
    close(fd);
  }
  EXPECT_EQ(Paths(2, "502 Failed to open queue, reason=Too many open files"), errors);
  EXPECT_FALSE(reader.IsIndexing(*folders[1]));
}

// Queues and questions at random.
class RandomQueues : public ManyFolders {
 protected:
  unsigned Number(unsigned end) { return static_cast<unsigned>(random_() % end); }
  std::string OneOf(const Paths& texts) { return texts[Number(static_cast<unsigned>(texts.size()))]; }

  std::string EventPath() {
    const std::string path =
        OneOf({"/photo", "/photo/a", "/photo/a/", "/photo/a/b", "/photo/a//b", "/photo/ab", "/photo/abc", "/photo/c",
               "/music/a", "/photo/a/b/x", "/photo/ab/x/y", "/photo/c/", "/photo/none/x"});
    return Number(30) == 0 ? OneOf({"", "/", "a", "photo/a", "//"}) : box_.Full(path);
  }
  std::string QueueLine() {
    switch (Number(24)) {
      case 0:
        return OneOf({"{bad", "", "{}", R"({"event":"x","path":"/a"})", R"({"event":1})", "[]", "null"});
      case 1:
      case 2:
      case 3:
        return Rename(EventPath(), EventPath());
      default:
        return Line(static_cast<int>(Number(1U << 17U)), EventPath());
    }
  }
  void WriteOrRemove(const std::string& path) {
    std::filesystem::remove_all(path);
    const unsigned kind = Number(8);
    if (kind == 0) {
      return;
    }
    if (kind == 1) {
      std::filesystem::create_directory(path);
      return;
    }
    Paths lines;
    for (unsigned i = Number(6); i > 0; --i) {
      lines.push_back(QueueLine());
    }
    WriteFile(path, Join(lines) + (Number(6) == 0 ? "{\"event\":1,\"pa" : ""));
  }
  void NewFiles() {
    for (const char* const share : {"photo", "music"}) {
      WriteOrRemove(QueueOf(share));
      WriteOrRemove(QueueOf(share) + ".tmp");
    }
    const std::string status =
        OneOf({"{}", "{}", "{}", R"({"resume_time":0})", R"({"resume_time":999})", R"({"resume_time":1001})",
               R"({"share":{"photo":1}})", R"({"share":{"music":3}})", R"({"share":7})", "[]", "{"});
    WriteFile(kStatusFile, status);
    WriteFile(kFoldersFile, Number(40) == 0 ? "{" : "[]");
  }
  Paths FolderPaths() {
    Paths paths;
    for (unsigned i = 1 + Number(7); i > 0; --i) {
      paths.push_back(Number(60) == 0 ? OneOf({"/gone/a", "malformed", ""})
                                      : OneOf({"/photo", "/photo/a", "/photo/a/", "/photo/a/b", "/photo/ab", "/photo/c",
                                               "/photo/c/", "/music/a", "/photo/none", "/photo/a//b"}));
    }
    return paths;
  }

  std::mt19937 random_{20};
};

TEST_F(RandomQueues, TogetherIsAsEachByItself) {
  int errors = 0;
  for (int round = 0; round < 3000; ++round) {
    NewFiles();
    const Paths paths = FolderPaths();
    const std::string each = AskEach(paths);
    ASSERT_EQ(each, AskTogether(paths)) << round;
    errors += each.front() == '[' ? 0 : 1;
  }
  EXPECT_LT(300, errors) << "or else errors were hardly compared";
  EXPECT_GT(2700, errors);
}

TEST_F(RandomQueues, EveryQuestionIsAsReadingTheQueueAnewAlsoBehindErrors) {
  int found = 0;
  for (int round = 0; round < 3000; ++round) {
    NewFiles();
    const Folders folders = FoldersAt(FolderPaths());
    std::vector<const Folder*> all;
    for (const auto& folder : folders) {
      all.push_back(folder.get());
    }
    FolderStatusReader reader(all);
    for (int question = 0; question < 10; ++question) {
      const Folder& folder = *all[Number(static_cast<unsigned>(all.size()))];
      bool by_itself = false;
      bool together = false;
      const std::string error_by_itself = ErrorOf([&] { by_itself = IsIndexingByItself(folder); });
      ASSERT_EQ(error_by_itself, ErrorOf([&] { together = reader.IsIndexing(folder); })) << round;
      ASSERT_EQ(by_itself, together) << round << " " << folder.GetPath();
      found += by_itself ? 1 : 0;
    }
  }
  EXPECT_LT(3000, found);
}

}  // namespace
}  // namespace orbisk::fileindex::test
