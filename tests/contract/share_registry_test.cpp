// The registry of shares on stock Linux: a file that people edit, that several processes change, and that readers must
// never see in part.
#include "nimo/share_registry.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "nimo/error.h"
#include "nimo/filesystem.h"
#include "nimo/share.h"
#include "tests/support/private_etc.h"
#include "tests/support/private_mounts.h"
#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"

namespace {

// Makes timestamps as coarse as those of older kernels and simpler file systems.
bool coarse_timestamps = false;

int Coarsen(int result, struct stat* status) {
  constexpr long kTickNs = 10000000;
  if (result == 0 && coarse_timestamps) {
    status->st_mtim.tv_nsec -= status->st_mtim.tv_nsec % kTickNs;
    status->st_ctim.tv_nsec -= status->st_ctim.tv_nsec % kTickNs;
  }
  return result;
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int stat(const char* path, struct stat* status) noexcept {
  return Coarsen(fstatat(AT_FDCWD, path, status, 0), status);
}

[[gnu::visibility("default")]] int fstat(int fd, struct stat* status) noexcept {
  return Coarsen(fstatat(fd, "", status, AT_EMPTY_PATH), status);
}
}

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using NIMO::SHARE::Entry;
using NIMO::SHARE::List;
using NIMO::SHARE::Register;
using NIMO::SHARE::Replace;
using NIMO::SHARE::Unregister;

constexpr char kRegistry[] = "/etc/nimo/shares.json";

class ShareRegistry : public testing::Test {
 protected:
  void SetUp() override {
    if (!MakePrivateEtc()) {
      GTEST_SKIP() << "private mounts are not allowed here";
    }
  }

  Entry MakeShare(const std::string& name) {
    fs::create_directories(volume_ / name);
    return {.name = name, .path = volume_ / name};
  }

  static void WriteRegistry(const std::string& text) {
    fs::create_directories("/etc/nimo");
    WriteFile(kRegistry, text);
  }

  TempDir volume_;
};

// The reason that it gives, "" when it gives none.
template <class Action>
std::string ReasonOf(Action action) {
  try {
    action();
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

std::string Names() {
  std::string names;
  for (const Entry& share : List()) {
    names += share.name + " ";
  }
  return names;
}

TEST_F(ShareRegistry, IsEmptyWhileThereIsNone) {
  const RecordCapture records;
  EXPECT_TRUE(List().empty());
  NIMOSHARE* share = nullptr;
  EXPECT_GT(0, NIMOShareGet("photo", &share));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
  EXPECT_FALSE(Unregister("photo"));
  EXPECT_TRUE(records.texts().empty());
}

TEST_F(ShareRegistry, KeepsSharesInOrderWithTheirSettings) {
  Entry photo = MakeShare("photo");
  photo.encrypted = photo.recycle = true;
  Entry music = MakeShare("a music \xff");
  music.encryption = music.read_only = music.hide_unreadable = true;
  music.ftp_privilege = -3;
  Register(photo);
  Register(music);
  const std::vector<Entry> shares = List();
  ASSERT_EQ(2U, shares.size());
  EXPECT_EQ(photo.path, shares[0].path);
  EXPECT_TRUE(shares[0].encrypted && shares[0].recycle);
  EXPECT_FALSE(shares[0].encryption || shares[0].read_only || shares[0].hide_unreadable);
  EXPECT_EQ("a music \xff", shares[1].name);
  EXPECT_TRUE(shares[1].encryption && shares[1].read_only && shares[1].hide_unreadable);
  EXPECT_FALSE(shares[1].encrypted || shares[1].recycle);
  EXPECT_EQ(-3, shares[1].ftp_privilege);
}

TEST_F(ShareRegistry, HasAPlaceForTheEventsOfAShareFromTheStart) {
  Register(MakeShare("photo"));
  Entry moved = MakeShare("other/photo");
  moved.name = "photo";
  Register(moved);
  Register(moved);

  for (const char* const volume : {"", "other/"}) {
    const fs::path folder = volume_ / (volume + std::string("@fileindex/photo"));
    EXPECT_TRUE(fs::is_directory(folder)) << folder;
    EXPECT_TRUE(fs::is_empty(folder)) << folder;
  }
}

TEST_F(ShareRegistry, TakesAShareWithoutAPlaceForItsEventsAndLogsThat) {
  const Entry photo = MakeShare("photo");
  const RecordCapture records;

  WriteFile(volume_ / "@fileindex", "in the way");
  Register(photo);
  fs::remove(volume_ / "@fileindex");
  fs::create_directories(volume_ / "elsewhere");
  fs::create_directory_symlink(volume_ / "elsewhere", volume_ / "@fileindex");
  Register(photo);

  EXPECT_EQ("photo ", Names());
  EXPECT_TRUE(fs::is_empty(volume_ / "elsewhere")) << "links are not followed";
  const std::string record =
      "event=index_folder_missing folder=\"" + (volume_ / "@fileindex/photo") + "\" reason=\"Not a directory\"";
  EXPECT_EQ((std::vector<std::string>{record, record}), records.texts());
}

TEST_F(ShareRegistry, ReplacesAShareInItsPlaceAndForgetsOne) {
  for (const char* name : {"a", "b", "c"}) {
    Register(MakeShare(name));
  }
  Entry b = MakeShare("moved/b");
  b.name = "b";
  Register(b);
  EXPECT_EQ("a b c ", Names());
  EXPECT_EQ(b.path, List()[1].path);
  EXPECT_TRUE(Unregister("b"));
  EXPECT_FALSE(Unregister("b"));
  EXPECT_EQ("a c ", Names());
  EXPECT_TRUE(fs::exists(b.path));
}

TEST_F(ShareRegistry, PutsAShareOfAnotherNameInThePlaceOfOne) {
  const Entry photo = MakeShare("photo");
  Register(photo);
  Register(MakeShare("music"));
  fs::rename(photo.path, volume_ / "pictures");
  Entry pictures = photo;
  pictures.name = "pictures";
  pictures.path = volume_ / "pictures";

  Replace("photo", pictures);

  EXPECT_EQ("pictures music ", Names());
  EXPECT_EQ(pictures.path, List()[0].path);
  EXPECT_TRUE(fs::is_directory(volume_ / "@fileindex/pictures"));
}

TEST_F(ShareRegistry, PutsNoShareInThePlaceOfOneWhereItCannotBe) {
  Register(MakeShare("photo"));
  Register(MakeShare("music"));
  const Entry other = MakeShare("other");

  EXPECT_EQ("no such share: films", ReasonOf([&] { Replace("films", other); }));
  EXPECT_EQ("there is a share music already", ReasonOf([&] { Replace("photo", MakeShare("music")); }));
  EXPECT_NE("", ReasonOf([&] { Replace("photo", {.name = "gone", .path = volume_ / "gone"}); }));
  EXPECT_NE("", ReasonOf([&] {
              fs::create_directories(volume_ / "music/inner");
              Replace("photo", {.name = "inner", .path = volume_ / "music/inner"});
            }));

  EXPECT_EQ("photo music ", Names());
}

TEST_F(ShareRegistry, RefusesWhatCannotBeAShareAndChangesNothing) {
  Register(MakeShare("photo"));
  const std::string before = ReadFile(kRegistry);
  fs::create_directories(volume_ / "photo/inner");
  fs::create_directories(volume_ / "around/photo2");
  fs::create_directory_symlink("photo", volume_ / "link");
  WriteFile(volume_ / "file", "");
  Register({.name = "photo2", .path = volume_ / "around/photo2"});
  const std::string with_two = ReadFile(kRegistry);
  ASSERT_NE(before, with_two);
  const std::vector<Entry> kRefused = {
      {.name = "", .path = volume_ / ""},
      {.name = ".", .path = volume_ / "."},
      {.name = "..", .path = volume_ / ".."},
      {.name = "a/b", .path = volume_ / "a/b"},
      {.name = std::string("a\0b", 3), .path = volume_ / std::string("a\0b", 3)},
      {.name = std::string(NIMO_SHARE_NAME_BYTES, 'n'), .path = volume_ / std::string(NIMO_SHARE_NAME_BYTES, 'n')},
      {.name = "photo", .path = "photo"},
      {.name = "photo", .path = volume_ / "photo/"},
      {.name = "photo", .path = volume_ / "/photo"},
      {.name = "photo", .path = volume_ / "./photo"},
      {.name = "photo", .path = volume_ / "around/../photo"},
      {.name = "other", .path = volume_ / "photo"},
      {.name = "missing", .path = volume_ / "missing"},
      {.name = "file", .path = volume_ / "file"},
      {.name = "link", .path = volume_ / "link"},
      {.name = "inner", .path = volume_ / "photo/inner"},
      {.name = "around", .path = volume_ / "around"},
  };
  for (const Entry& entry : kRefused) {
    EXPECT_NE("", ReasonOf([&] { Register(entry); })) << entry.name << " " << entry.path;
  }
  EXPECT_EQ(with_two, ReadFile(kRegistry));
  EXPECT_EQ(volume_ / "photo", List().at(0).path);
}

TEST_F(ShareRegistry, RefusesAFolderBehindALinkAsItCouldLieInAnotherShare) {
  Register(MakeShare("photo"));
  fs::create_directories(volume_ / "photo/inner");
  fs::create_directory_symlink(".", volume_ / "link");

  const std::string reason = ReasonOf([&] { Register({.name = "inner", .path = volume_ / "link/photo/inner"}); });

  EXPECT_EQ(volume_ / "link/photo/inner leads through a link, to " + (volume_ / "photo/inner"), reason);
  EXPECT_EQ("photo ", Names());
}

TEST_F(ShareRegistry, TakesAShareBesideOneWhoseNameItBeginsWith) {
  Register(MakeShare("photo"));
  Register(MakeShare("photos"));
  Register(MakeShare("phot"));
  EXPECT_EQ("photo photos phot ", Names());
}

TEST_F(ShareRegistry, CanBeReadByEverybodyWhateverTheMask) {
  const mode_t before = umask(0077);
  Register(MakeShare("photo"));
  umask(before);
  EXPECT_EQ(fs::perms(0644), fs::status(kRegistry).permissions());
  EXPECT_EQ(fs::perms(0755), fs::status("/etc/nimo").permissions());
}

TEST_F(ShareRegistry, CanBeLockedByNobodyWhoMayNotWriteIt) {
  constexpr char kLock[] = "/etc/nimo/shares.json.lock";
  Register(MakeShare("photo"));
  const fs::perms made = fs::status(kLock).permissions();
  fs::permissions(kLock, fs::perms(0644));  // as earlier versions made it

  Register(MakeShare("music"));

  EXPECT_EQ(fs::perms(0600), made);
  EXPECT_EQ(fs::perms(0600), fs::status(kLock).permissions());
}

TEST_F(ShareRegistry, LeavesNothingButItselfAndItsLockBehind) {
  // A writer was killed in the middle.
  fs::create_directories("/etc/nimo");
  WriteFile("/etc/nimo/shares.json.tmp", "[{\"name\":");
  Register(MakeShare("photo"));
  std::set<std::string> files;
  for (const auto& file : fs::directory_iterator("/etc/nimo")) {
    files.insert(file.path().filename());
  }
  EXPECT_EQ((std::set<std::string>{"shares.json", "shares.json.lock"}), files);
}

TEST_F(ShareRegistry, IsAsItWasWhenItCannotBeWritten) {
  fs::create_directories("/etc/nimo");
  MountEmptyFileSystem("/etc/nimo", 16384);
  Register(MakeShare("photo"));
  const std::string before = ReadFile(kRegistry);
  std::string reason;
  for (int i = 0; i < 1000 && reason.empty(); ++i) {
    reason = ReasonOf([&] { Register(MakeShare("a share of a long name " + std::to_string(i))); });
  }
  EXPECT_NE(std::string::npos, reason.find(strerror(ENOSPC))) << reason;
  EXPECT_EQ(before, ReadFile(kRegistry).substr(0, before.size() - 3) + "\n]\n");
  EXPECT_FALSE(fs::exists("/etc/nimo/shares.json.tmp"));
  EXPECT_FALSE(List().empty());
  // So that the next test can remove the folder.
  ASSERT_EQ(0, system("umount /etc/nimo 2>/dev/null || umount -l /etc/nimo"));
}

TEST_F(ShareRegistry, NoticesEveryChangeAtOnce) {
  // As fast as the file can be written: timestamps alone do not tell.
  coarse_timestamps = true;
  for (int i = 0; i < 300; ++i) {
    WriteRegistry(R"([{"name":"s)" + std::to_string(100 + i) + R"(","path":"/v/s)" + std::to_string(100 + i) + "\"}]");
    ASSERT_EQ("s" + std::to_string(100 + i) + " ", Names());
  }
  coarse_timestamps = false;
  fs::remove(kRegistry);
  EXPECT_TRUE(List().empty());
}

TEST_F(ShareRegistry, NoticesAChangeAfterItWasKept) {
  WriteRegistry(R"([{"name":"a","path":"/v/a"}])");
  std::this_thread::sleep_for(std::chrono::milliseconds(150));  // until timestamps tell
  EXPECT_EQ("a ", Names());
  EXPECT_EQ("a ", Names());
  WriteRegistry(R"([{"name":"b","path":"/v/b"}])");
  EXPECT_EQ("b ", Names());
}

struct Malformed {
  const char* what;
  std::string text;
};

std::vector<Malformed> MalformedRegistries() {
  const std::string good = R"([{"name":"a","path":"/v/a","recycle":true,"ftp_privilege":1}])";
  std::vector<Malformed> all = {
      {"nothing", ""},
      {"an object", R"({"name":"a","path":"/v/a"})"},
      {"null", "null"},
      {"a string", "\"a\""},
      {"no object in it", "[1]"},
      {"an array in it", "[[]]"},
      {"no name", R"([{"path":"/v/a"}])"},
      {"no path", R"([{"name":"a"}])"},
      {"a number for a name", R"([{"name":1,"path":"/v/1"}])"},
      {"a number for a path", R"([{"name":"a","path":1}])"},
      {"an empty name", R"([{"name":"","path":"/v/"}])"},
      {"a slash in a name", R"([{"name":"v/a","path":"/v/a"}])"},
      {"a NUL in a name", R"([{"name":"a\u0000","path":"/v/a\u0000"}])"},
      {"a NUL in a path", R"([{"name":"a","path":"/v\u0000/a"}])"},
      {"a relative path", R"([{"name":"a","path":"v/a"}])"},
      {"a path that is not plain", R"([{"name":"a","path":"/v/../a"}])"},
      {"another name in the path", R"([{"name":"a","path":"/v/b"}])"},
      {"a name too long", "[{\"name\":\"" + std::string(492, 'n') + "\",\"path\":\"/" + std::string(492, 'n') + "\"}]"},
      {"a path too long", "[{\"name\":\"a\",\"path\":\"/" + std::string(4096, 'p') + "/a\"}]"},
      {"a number for a setting", R"([{"name":"a","path":"/v/a","recycle":1}])"},
      {"a string for a setting", R"([{"name":"a","path":"/v/a","encrypted":"true"}])"},
      {"a string for the privilege", R"([{"name":"a","path":"/v/a","ftp_privilege":"1"}])"},
      {"a privilege too large", R"([{"name":"a","path":"/v/a","ftp_privilege":3000000000}])"},
      {"a name twice", R"([{"name":"a","path":"/v/a"},{"name":"a","path":"/w/a"}])"},
      {"a key twice", R"([{"name":"a","name":"a","path":"/v/a"}])"},
      {"a second text", good + good},
      {"a NUL behind", good + std::string(1, '\0')},
      {"a NUL instead", std::string(64, '\0')},
      {"a comment", "/* shares */ " + good},
      {"a comma at the end", R"([{"name":"a","path":"/v/a"},])"},
      {"deep arrays", std::string(100000, '[')},
      {"deep objects", R"([{"name":"a","path":"/v/a","more":{"a":{"a":{"a":{"a":{"a":{"a":{"a":1}}}}}}}}}])"},
      {"far too much", "[" + std::string(17UL * 1024 * 1024, ' ') + "]"},
  };
  for (size_t length = 1; length < good.size(); ++length) {
    all.push_back({"the beginning only", good.substr(0, length)});
  }
  return all;
}

TEST_F(ShareRegistry, ThatIsMalformedIsAFailureOfEveryQuestionWithARecord) {
  for (const Malformed& malformed : MalformedRegistries()) {
    WriteRegistry(malformed.text);
    const RecordCapture records;
    NIMOSHARE* share = nullptr;
    EXPECT_GT(0, NIMOShareGet("a", &share)) << malformed.what;
    EXPECT_EQ(EBADMSG, NLIBCErrGet()) << malformed.what;
    SZLIST* list = NLIBCSzListAlloc(1);
    EXPECT_GT(0, NLIBShareEnum(&list, nullptr)) << malformed.what;
    NLIBCSzListFree(list);
    char name[512];
    char path[4096];
    EXPECT_GT(0, NIMOShareNamePathGet("/v/a", name, sizeof(name), path, sizeof(path)));
    EXPECT_GT(0, NIMOShareIsShareRecycle("/v/a/#recycle"));
    EXPECT_GT(0, NIMORecycleUserHomePathIsExist("/v/a", 11));
    int flag = 7;
    EXPECT_NE(0, NLIBFhsPathInSnapshot("/v/a", &flag));
    NIMOSHARE known{"a", "/v/a", 0};
    EXPECT_GT(0, NLIBShareIsEncryptedGet(&known, &flag));
    EXPECT_EQ(7, flag);
    const std::string reason = ReasonOf([] { List(); });
    EXPECT_EQ(0U, reason.find("/etc/nimo/shares.json: ")) << malformed.what << ": " << reason;
    ASSERT_EQ(1U, records.texts().size()) << malformed.what;
    EXPECT_EQ("event=share_registry_unreadable reason=\"" + reason + "\"", records.texts()[0]);
  }
}

TEST_F(ShareRegistry, ThatIsMalformedIsNotWrittenOver) {
  WriteRegistry("[{\"name\":");
  EXPECT_NE("", ReasonOf([&] { Register(MakeShare("photo")); }));
  EXPECT_NE("", ReasonOf([] { Unregister("photo"); }));
  EXPECT_EQ("[{\"name\":", ReadFile(kRegistry));
}

TEST_F(ShareRegistry, SaysWhichEntryIsBad) {
  WriteRegistry(R"([{"name":"a","path":"/v/a"},{"name":"b","path":"/v/b","recycle":1}])");
  EXPECT_EQ("/etc/nimo/shares.json: entry 2: \"recycle\" is neither true nor false", ReasonOf([] { List(); }));
}

TEST_F(ShareRegistry, TakesWhatAnAdministratorOrANewerVersionWrites) {
  WriteRegistry("\n [ {\"path\" : \"/v/a\",\n\t\"name\" : \"a\", \"comment\": [\"x\", {\"y\": null}]} ] \n\n");
  ASSERT_EQ("a ", Names());
  EXPECT_FALSE(List()[0].recycle);
  WriteRegistry("[]");
  EXPECT_EQ("", Names());
}

TEST_F(ShareRegistry, FindsTheInnerOfTwoSharesThatAnAdministratorNested) {
  for (const char* text : {R"([{"name":"a","path":"/v/a"},{"name":"b","path":"/v/a/b"}])",
                           R"([{"name":"b","path":"/v/a/b"},{"name":"a","path":"/v/a"}])"}) {
    WriteRegistry(text);
    char name[512];
    char path[4096];
    EXPECT_EQ(0, NIMOShareNamePathGet("/v/a/b/c", name, sizeof(name), path, sizeof(path)));
    EXPECT_STREQ("b", name);
    EXPECT_STREQ("/v/a/b", path);
    EXPECT_EQ(0, NIMOShareNamePathGet("/v//a/bc", name, sizeof(name), path, sizeof(path)));
    EXPECT_STREQ("a", name);
  }
}

TEST_F(ShareRegistry, ThatIsNoFileIsAFailure) {
  fs::create_directories(kRegistry);
  EXPECT_NE("", ReasonOf([] { List(); }));
  fs::remove(kRegistry);
  ASSERT_EQ(0, mkfifo(kRegistry, 0644));  // must not wait for a writer
  EXPECT_NE("", ReasonOf([] { List(); }));
}

TEST_F(ShareRegistry, RecoversWhenTheFileIsMended) {
  WriteRegistry("[");
  EXPECT_NE("", ReasonOf([] { List(); }));
  WriteRegistry(R"([{"name":"a","path":"/v/a"}])");
  EXPECT_EQ("a ", Names());
}

// Registers and forgets its shares over and over; exits with 0 if all went well.
[[noreturn]] void Write(const std::string& volume, const std::string& prefix, int rounds) {
  int status = 0;
  try {
    for (int i = 0; i < rounds; ++i) {
      const std::string name = prefix + std::to_string(i);
      fs::create_directories(volume + "/" + name);
      Register({.name = name, .path = volume + "/" + name});
      status = i % 2 == 0 && !Unregister(name) ? 2 : status;
    }
  } catch (const std::exception&) {
    status = 1;
  }
  _exit(status);
}

TEST_F(ShareRegistry, LosesNoShareOfTwoProcessesAndNeverShowsHalfAFile) {
  constexpr int kRounds = 150;
  const Entry steady = MakeShare("steady");
  Register(steady);
  std::vector<pid_t> writers;
  for (const char* prefix : {"one", "two"}) {
    writers.push_back(fork());
    ASSERT_LE(0, writers.back());
    if (writers.back() == 0) {
      Write(volume_.path(), prefix, kRounds);
    }
  }
  size_t looks = 0;
  for (const pid_t writer : writers) {
    int status = 0;
    while (waitpid(writer, &status, WNOHANG) == 0) {
      NIMOSHARE* share = nullptr;
      EXPECT_EQ(0, NIMOShareGet("steady", &share));
      NIMOShareFree(share);
      EXPECT_EQ("", ReasonOf([] { List(); }));
      ++looks;
    }
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
  }
  EXPECT_LT(100U, looks);
  EXPECT_EQ(1U + kRounds, List().size());
}

TEST_F(ShareRegistry, LetsThreadsReadAndWriteAtOnce) {
  constexpr int kRounds = 50;
  for (const char* prefix : {"a", "b"}) {
    for (int i = 0; i < kRounds; ++i) {
      MakeShare(prefix + std::to_string(i));
    }
  }
  std::vector<std::thread> threads;
  for (const char* prefix : {"a", "b"}) {
    threads.emplace_back([this, prefix] {
      for (int i = 0; i < kRounds; ++i) {
        const std::string name = prefix + std::to_string(i);
        Register({.name = name, .path = volume_ / name});
        NIMOSHARE* share = nullptr;
        EXPECT_EQ(0, NIMOShareGet(name.c_str(), &share));
        NIMOShareFree(share);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(2U * kRounds, List().size());
}

TEST_F(ShareRegistry, OfTheEncryptedKindIsLockedWhileNothingIsMounted) {
  Entry vault = MakeShare("vault");
  vault.encryption = true;
  Register(vault);
  NIMOSHARE* share = nullptr;
  ASSERT_EQ(0, NIMOShareGet("vault", &share));
  int locked = 7;
  EXPECT_LE(0, NLIBShareIsEncryptedGet(share, &locked));
  EXPECT_EQ(1, locked);
  MountEmptyFileSystem(vault.path, 1024UL * 1024);
  EXPECT_LE(0, NLIBShareIsEncryptedGet(share, &locked));
  EXPECT_EQ(0, locked);
  vault.encrypted = true;
  Register(vault);
  EXPECT_LE(0, NLIBShareIsEncryptedGet(share, &locked));
  EXPECT_EQ(1, locked);
  NIMOShareFree(share);
}

TEST_F(ShareRegistry, OfTheEncryptedKindIsLockedWhileItsFolderIsMissing) {
  Entry vault = MakeShare("vault");
  vault.encryption = true;
  Register(vault);
  fs::remove(vault.path);
  NIMOSHARE* share = nullptr;
  ASSERT_EQ(0, NIMOShareGet("vault", &share));
  int locked = 7;
  int read_only = 7;
  EXPECT_LE(0, NLIBShareIsEncryptedGet(share, &locked));
  EXPECT_LE(0, NLIBShareIsReadOnlyGet(share, &read_only));
  EXPECT_EQ(1, locked);
  EXPECT_EQ(0, read_only);
  NIMOShareFree(share);
}

}  // namespace
}  // namespace orbisk::test
