// Searching for an account with the real daemons: files of the same words, some of which the account may open.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "orbisk/fileindex/elastic_control.h"
#include "tests/support/private_etc.h"
#include "tests/system/search_box.h"

namespace orbisk::test {
namespace {

namespace elastic = fileindex::elastic;
namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr uid_t kAnn = 1001;
constexpr uid_t kBob = 1002;
constexpr gid_t kClub = 5001;  // the first group that is made

class SearchAs : public SearchBox {
 protected:
  void SetUp() override {
    SkipWithoutIdentities();
    if (IsSkipped()) {
      return;
    }
    umask(022);
    SearchBox::SetUp();
    started_ = true;
    AddPrivateAccount("ann", kAnn, kAnn, {"club"});
    AddPrivateAccount("bob", kBob, kBob);
    fs::permissions(fs::path(OnFirst("")).parent_path().parent_path(), fs::perms(0755));
    AddIndexedShare(OnFirst("docs"));
    fs::permissions(OnFirst("docs"), fs::perms(0755));
    IndexHerons();
  }

  void TearDown() override {
    if (started_) {
      SearchBox::TearDown();
    }
  }

  void IndexHerons() const {
    Add("open.txt", "A heron for all.", 0644);
    Add("secret.txt", "A heron, in secret.", 0600);
    Add("locked/below.md", "A heron behind a locked door.", 0644);
    Add("club.txt", "A heron for the club.", 0640, kClub);
    Add("granted.txt", "A heron, granted.", 0600);
    fs::permissions(In("locked"), fs::perms(0700));
    const std::unique_ptr<void, decltype(&acl_free)> acl(acl_from_text("u::rw-,u:1002:r--,g::---,m::r--,o::---"),
                                                         &acl_free);
    ASSERT_EQ(0, acl_set_file(In("granted.txt").c_str(), ACL_TYPE_ACCESS, static_cast<acl_t>(acl.get())));
    elastic::IndexCommit("docs");
  }

  void Add(const std::string& name, const std::string& text, unsigned mode, gid_t group = 0) const {
    Index("docs", In(name), text);
    EXPECT_EQ(0, chown(In(name).c_str(), 0, group));
    fs::permissions(In(name), fs::perms(mode));
  }

  std::string In(const std::string& name) const { return OnFirst("docs/" + name); }

  static std::vector<std::string> FindAs(const std::string& account, std::vector<std::string> arguments = {"heron"}) {
    arguments.insert(arguments.end(), {"--as", account, "--sort", "path"});
    return Find(arguments);
  }

 private:
  bool started_ = false;
};

TEST_F(SearchAs, FindsWhatTheAccountMayOpen) {
  EXPECT_THAT(FindAs("ann"), ElementsAre(In("club.txt"), In("open.txt")));
  EXPECT_THAT(FindAs("bob"), ElementsAre(In("granted.txt"), In("open.txt")));
  EXPECT_EQ(5U, FindAs("root").size());
  EXPECT_EQ(5U, Find({"heron"}).size());
}

TEST_F(SearchAs, TellsNothingOfOtherFiles) {
  const Json::Value answer = Parse(Fileindexctl({"search", "--json", "--as", "bob", "heron"}).output);

  EXPECT_EQ(2, answer["total"].asInt());
  EXPECT_TRUE(answer["exact"].asBool());
  ASSERT_EQ(1U, answer["facets"]["extension"].size()) << answer["facets"];
  EXPECT_EQ("txt", answer["facets"]["extension"][0]["value"].asString());
  EXPECT_EQ(2, answer["facets"]["extension"][0]["count"].asInt());
  const std::string text = answer.toStyledString();
  EXPECT_THAT(text, HasSubstr("granted"));
  for (const char* const word : {"secret", "locked", "below", "club", "door", "md"}) {
    EXPECT_THAT(text, Not(HasSubstr(word)));
  }
  EXPECT_THAT(FindAs("bob", {"door OR club OR below OR ext:md"}), IsEmpty());
}

TEST_F(SearchAs, PagesAreOfItsFilesAlone) {
  EXPECT_THAT(FindAs("bob", {"heron", "--limit", "1"}), ElementsAre(In("granted.txt")));
  EXPECT_THAT(FindAs("bob", {"heron", "--limit", "1", "--offset", "1"}), ElementsAre(In("open.txt")));
  EXPECT_THAT(FindAs("bob", {"heron", "--offset", "2"}), IsEmpty());
  EXPECT_THAT(Fileindexctl({"search", "heron", "--as", "ann", "--limit", "1"}).output, HasSubstr("\n1 of 2 hits\n"));
}

TEST_F(SearchAs, HeedsRightsThatHaveJustChanged) {
  fs::permissions(In("open.txt"), fs::perms(0600));
  fs::permissions(In("secret.txt"), fs::perms(0604));
  fs::permissions(In("locked"), fs::perms(0711));

  EXPECT_THAT(FindAs("bob"), ElementsAre(In("granted.txt"), In("locked/below.md"), In("secret.txt")));

  fs::permissions(OnFirst("docs"), fs::perms(0700));
  EXPECT_THAT(FindAs("bob"), IsEmpty());

  fs::permissions(OnFirst("docs"), fs::perms(0755));
  AddPrivateAccount("bob", kBob, kBob, {"club"});
  EXPECT_THAT(FindAs("bob", {"club"}), ElementsAre(In("club.txt")));
}

TEST_F(SearchAs, ShowsNoWordsOfAFileThatIsGoneOrReplaced) {
  fs::remove(In("open.txt"));
  EXPECT_THAT(FindAs("bob"), ElementsAre(In("granted.txt")));

  // Where people share a folder one of them can do this, and see the old words if nobody looks.
  sleep(1);  // dates of birth are kept in seconds
  WriteFile(In("new"), "nothing");
  fs::rename(In("new"), In("secret.txt"));
  EXPECT_THAT(FindAs("bob"), ElementsAre(In("granted.txt")));

  elastic::IndexUpsert("docs", In("secret.txt"), true);
  elastic::IndexCommit("docs");
  EXPECT_THAT(FindAs("bob", {"nothing"}), ElementsAre(In("secret.txt")));
  EXPECT_THAT(FindAs("bob"), ElementsAre(In("granted.txt")));
}

TEST_F(SearchAs, SuggestsWordsOfFilesThatTheAccountMayOpen) {
  EXPECT_EQ("for\n", Fileindexctl({"suggest", "fo", "--as", "bob"}).output);
  EXPECT_EQ("granted\n", Fileindexctl({"suggest", "gra", "--as", "bob"}).output);
  EXPECT_EQ("", Fileindexctl({"suggest", "gra", "--as", "ann"}).output);
  EXPECT_EQ("", Fileindexctl({"suggest", "secr", "--as", "bob", "--share", "docs"}).output);
  EXPECT_EQ("secret\n", Fileindexctl({"suggest", "secr", "--as", "root"}).output);
  EXPECT_EQ("[\"club\"]\n", Fileindexctl({"suggest", "clu", "--as", "ann", "--json"}).output);
  EXPECT_TRUE(
      FailsWith(Fileindexctl({"suggest", "clu", "--as", ""}), "fileindexctl: error 1208: no such account: \"\""));
}

TEST_F(SearchAs, SuggestionsSayThatAnIndexCouldNotBeAskedButNotWhich) {
  AddIndexedShare(OnSecond("private"));
  elastic::ShareIndexPause("private");

  const ProcessResult result = Fileindexctl({"suggest", "her", "--as", "ann"});

  EXPECT_EQ("heron\n", result.output);
  EXPECT_EQ("fileindexctl: an index could not be asked, so words may be missing here\n", result.errors);
}

TEST_F(SearchAs, AnAccountThatDoesNotExistIsAFailure) {
  const std::string start = "fileindexctl: error 1208: no such account: ";
  EXPECT_TRUE(FailsWith(Fileindexctl({"search", "heron", "--as", "nobody-knows"}), start + "nobody-knows"));
  EXPECT_TRUE(FailsWith(Fileindexctl({"search", "heron", "--json", "--as", ""}), start + "\"\""));
}

TEST_F(SearchAs, SaysThatAnIndexCouldNotBeAskedButNotWhich) {
  AddIndexedShare(OnSecond("private"));
  elastic::ShareIndexPause("private");

  const ProcessResult result = Fileindexctl({"search", "heron", "--as", "ann"});

  EXPECT_EQ(0, result.exit_status);
  EXPECT_EQ("fileindexctl: an index could not be asked, so files may be missing here\n", result.errors);
  EXPECT_THAT(result.output, Not(HasSubstr("private")));
}

}  // namespace
}  // namespace orbisk::test
