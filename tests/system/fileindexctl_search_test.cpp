// "fileindexctl search", "suggest", "index" and "extract", run as a program against the real daemons.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "orbisk/fileindex/elastic_control.h"
#include "tests/support/local_socket.h"
#include "tests/system/search_box.h"

namespace orbisk::test {
namespace {

namespace elastic = fileindex::elastic;
namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr char kNoSearchDaemon[] =
    "fileindexctl: error 913: the search daemon cannot be reached at /var/run/nimoelasticd.sock: "
    "No such file or directory";

class SearchCommands : public SearchBox {
 protected:
  void SetUp() override {
    SearchBox::SetUp();
    AddIndexedShare(OnFirst("docs"));
    AddIndexedShare(OnSecond("mail"));
  }

  // Three files in two shares that all say "heron".
  void IndexHerons() const {
    Index("docs", OnFirst("docs/a.txt"), "One heron.\nIt came to the weir.");
    Index("docs", OnFirst("docs/b.md"), "Another heron." + std::string(2000, ' '));
    Index("mail", OnSecond("mail/c.txt"), "A third heron, or hero.");
    elastic::IndexCommit("docs");
    elastic::IndexCommit("mail");
  }

  // What the program makes of `answer`, whatever it asked for, in place of the search daemon's.
  static ProcessResult AgainstAnswer(const std::string& answer, const std::vector<std::string>& arguments) {
    const int listener = ListenAt("/var/run/nimoelasticd.sock");
    std::thread daemon([&] {
      const int client = accept(listener, nullptr, nullptr);
      std::uint64_t length = 0;
      EXPECT_EQ(recv(client, &length, sizeof(length), MSG_WAITALL), ssize_t{sizeof(length)});
      std::string request(length, '\0');
      EXPECT_EQ(recv(client, request.data(), length, MSG_WAITALL), static_cast<ssize_t>(length));
      length = answer.size();
      send(client, &length, sizeof(length), MSG_NOSIGNAL);
      send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
      close(client);
    });
    const ProcessResult result = Fileindexctl(arguments);
    shutdown(listener, SHUT_RDWR);  // in case nobody came
    daemon.join();
    close(listener);
    return result;
  }

  // What the program writes to a terminal.
  static std::string OnTerminal(const std::string& variables, const std::string& arguments) {
    const std::string program = BuiltProgram("fileindexctl");
    return RunProcess({"script", "-qec", variables + " " + program + " " + arguments, "/dev/null"}).output;
  }
};

TEST_F(SearchCommands, AHitIsALineWithPathSizeDateAndSnippet) {
  Index("docs", OnFirst("docs/a.txt"), "One heron.\nIt came\tto the weir.");
  elastic::IndexCommit("docs");

  const ProcessResult result = Fileindexctl({"search", "heron"});

  EXPECT_EQ(result.errors, "");
  EXPECT_THAT(result.output, MatchesRegex(OnFirst("docs/a.txt") +
                                          "  31B  "
                                          "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}  One heron. It came to the "
                                          "weir.\n1 of 1 hits\n"));
}

TEST_F(SearchCommands, SizesAreShortAndAFolderHasNone) {
  Index("docs", OnFirst("docs/a.txt"), "heron" + std::string(1018, ' '));
  Index("docs", OnFirst("docs/b.txt"), "heron" + std::string(1531, ' '));
  Index("docs", OnFirst("docs/c.txt"), "heron" + std::string(20'000, ' '));
  elastic::IndexUpsert("docs", OnFirst("docs"), true);
  elastic::IndexCommit("docs");

  const std::string lines = Fileindexctl({"search", "heron OR type:folder"}).output;

  EXPECT_THAT(lines, AllOf(HasSubstr("/a.txt  1023B  "), HasSubstr("/b.txt  1.5K  "), HasSubstr("/c.txt  19K  ")));
  EXPECT_THAT(lines, AllOf(HasSubstr("/docs  dir  "), HasSubstr("  -\n")));
}

TEST_F(SearchCommands, NothingFoundIsNoFailure) {
  EXPECT_TRUE(Succeeds(Fileindexctl({"search", "heron"}), "0 of 0 hits\n"));
}

TEST_F(SearchCommands, WordsMayBeSeveralArguments) {
  IndexHerons();

  EXPECT_THAT(Find({"heron", "weir"}), ElementsAre(OnFirst("docs/a.txt")));
  EXPECT_THAT(Find({"--", "-weir", "heron", "-hero"}), ElementsAre(OnFirst("docs/b.md")));
}

TEST_F(SearchCommands, SharesTypesOrderAndPagesNarrowWhatIsPrinted) {
  IndexHerons();
  const std::string a = OnFirst("docs/a.txt");
  const std::string b = OnFirst("docs/b.md");
  const std::string c = OnSecond("mail/c.txt");

  EXPECT_THAT(Find({"heron", "--sort", "path"}), ElementsAre(a, b, c));
  EXPECT_THAT(Find({"heron", "--sort", "path", "--desc"}), ElementsAre(c, b, a));
  EXPECT_THAT(Find({"heron", "--sort", "size"}), ElementsAre(c, a, b));
  EXPECT_THAT(Find({"heron", "--sort", "name", "--offset", "1", "--limit", "1"}), ElementsAre(b));
  EXPECT_THAT(Find({"heron", "--share", "mail"}), ElementsAre(c));
  EXPECT_THAT(Find({"heron", "--share", "mail", "--share", "docs", "--sort", "path"}), ElementsAre(a, b, c));
  EXPECT_THAT(Find({"heron", "--type", "md"}), ElementsAre(b));
  EXPECT_THAT(Find({"weir OR hero", "--type", "md"}), ElementsAre());
  EXPECT_THAT(Find({"heron", "--type", "md", "--type", "txt", "--sort", "path"}), ElementsAre(a, b, c));
  EXPECT_THAT(Find({"", "--type", "text", "--sort", "path"}), ElementsAre(a, b, c));
  EXPECT_THAT(Fileindexctl({"search", "heron", "--limit", "2"}).output, EndsWith("\n2 of 3 hits\n"));
}

TEST_F(SearchCommands, JsonIsTheWholeAnswer) {
  IndexHerons();

  const Json::Value answer = Parse(Fileindexctl({"search", "weir", "--json"}).output);

  EXPECT_EQ(answer["total"], 1);
  EXPECT_EQ(answer["hits"][0]["path"], OnFirst("docs/a.txt"));
  EXPECT_EQ(answer["hits"][0]["id"], "fileindex_docs");
  EXPECT_EQ(answer["hits"][0]["fields"]["NIMOMDFSSize"], 31);
  EXPECT_THAT(answer["hits"][0]["snippet"].asString(), HasSubstr("<b>weir</b>"));
  EXPECT_EQ(answer["facets"]["extension"][0]["value"], "txt");
}

TEST_F(SearchCommands, FoundWordsHaveAColorOnATerminalAlone) {
  IndexHerons();

  EXPECT_THAT(OnTerminal("TERM=xterm NO_COLOR=", "search weir"), HasSubstr("the \x1b[1;31mweir\x1b[0m."));
  EXPECT_THAT(OnTerminal("TERM=xterm NO_COLOR=1", "search weir"), AllOf(HasSubstr("weir"), Not(HasSubstr("\x1b"))));
  EXPECT_THAT(OnTerminal("TERM=dumb NO_COLOR=", "search weir"), AllOf(HasSubstr("weir"), Not(HasSubstr("\x1b"))));
  EXPECT_THAT(Fileindexctl({"search", "weir"}).output, AllOf(HasSubstr("weir"), Not(HasSubstr("\x1b"))));
}

TEST_F(SearchCommands, NamesAndTextCannotCommandTheTerminal) {
  Index("docs", OnFirst("docs/a\n\x1b[2J.txt"), "A heron \x1b]0;title\x07 stays.");
  elastic::IndexCommit("docs");

  const std::string text = OnTerminal("TERM=xterm NO_COLOR=", "search heron");

  EXPECT_THAT(Fileindexctl({"extract", OnFirst("docs/a\n\x1b[2J.txt")}).output,
              AllOf(HasSubstr("/docs/a\\n\\x1b[2J.txt"), HasSubstr("heron"), Not(HasSubstr("\x1b"))));
  EXPECT_THAT(text, HasSubstr("/docs/a\\n\\x1b[2J.txt"));
  EXPECT_THAT(text, AllOf(Not(HasSubstr("\x1b[2J")), Not(HasSubstr("\x1b]0")), Not(HasSubstr("\x07"))));
}

TEST_F(SearchCommands, AQuestionThatCannotBeReadFailsWithTheDaemonsReason) {
  EXPECT_TRUE(FailsWith(Fileindexctl({"search", "(heron"}),
                        "fileindexctl: error 1211: a closing parenthesis is missing, at byte 7"));
  EXPECT_TRUE(FailsWith(Fileindexctl({"search", "heron", "--share", "nope"}),
                        "fileindexctl: error 1204: no such index: fileindex_nope"));
  EXPECT_EQ(Fileindexctl({"search", "heron", "--limit", "10001"}).exit_status, 1);
}

TEST_F(SearchCommands, APausedIndexIsSaidToBePausedAtOnce) {
  elastic::ShareIndexPause("docs");

  const ProcessResult result = Fileindexctl({"search", "heron", "--share", "docs"});

  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.errors, StartsWith("fileindexctl: error 608: "));
  EXPECT_EQ(Fileindexctl({"suggest", "her"}).exit_status, 0);
}

TEST_F(SearchCommands, ASearchOfAllIndexesSaysWhichItLeftOut) {
  IndexHerons();
  elastic::ShareIndexPause("docs");

  const ProcessResult result = Fileindexctl({"search", "heron"});

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.output, AllOf(StartsWith(OnSecond("mail/c.txt")), EndsWith("\n1 of 1 hits\n")));
  EXPECT_EQ(result.errors,
            "fileindexctl: these indexes could not be asked, see \"fileindexctl index list\": fileindex_docs\n");
  EXPECT_EQ(Parse(Fileindexctl({"search", "heron", "--json"}).output)["left_out"][0], "fileindex_docs");
}

TEST_F(SearchCommands, WhatAnAnswerMayLackIsSaid) {
  KillSearchDaemon();
  const ProcessResult result = AgainstAnswer(
      R"({"data":{"hits":[],"more":true,"repairing":true,"total":100000},"success":true})", {"search", "heron"});

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.output, "0 of more than 100000 hits\n");
  EXPECT_EQ(result.errors, "fileindexctl: an index is being repaired, so files may be missing here\n");
}

TEST_F(SearchCommands, AHitThatHasMoreTextThanIsSearchedIsNamed) {
  Index("docs", OnFirst("docs/long.txt"), "heron " + std::string(5 << 20, 'x') + " weir");
  Index("docs", OnFirst("docs/short.txt"), "heron");
  elastic::IndexCommit("docs");

  const ProcessResult found = Fileindexctl({"search", "heron", "--sort", "path"});
  const Json::Value answer = Parse(Fileindexctl({"search", "heron", "--sort", "path", "--json"}).output);

  EXPECT_EQ(found.errors, "fileindexctl: has more text than is searched: " + OnFirst("docs/long.txt") + "\n");
  EXPECT_EQ(answer["hits"][0]["cut"], true);
  EXPECT_FALSE(answer["hits"][0]["fields"].isMember("NIMOMDCoverage")) << "nobody asked for it";
  EXPECT_FALSE(answer["hits"][1].isMember("cut"));
  EXPECT_THAT(Fileindexctl({"search", "weir"}).output, StartsWith("0 of 0"));
}

TEST_F(SearchCommands, SuggestOfAllIndexesSaysWhichItLeftOut) {
  IndexHerons();
  elastic::UpdateTermSuggestion("fileindex_mail", {OnSecond("mail/c.txt")});
  elastic::IndexCommit("mail");
  elastic::ShareIndexPause("docs");

  const ProcessResult result = Fileindexctl({"suggest", "hero"});

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.output, "hero\nheron\n");
  EXPECT_EQ(result.errors,
            "fileindexctl: these indexes could not be asked, see \"fileindexctl index list\": fileindex_docs\n");
}

TEST_F(SearchCommands, SuggestGivesTheWordsOfOneIndexOrOfAll) {
  IndexHerons();
  elastic::UpdateTermSuggestion("fileindex_docs", {OnFirst("docs/a.txt"), OnFirst("docs/b.md")});
  elastic::UpdateTermSuggestion("fileindex_mail", {OnSecond("mail/c.txt")});
  elastic::IndexCommit("docs");
  elastic::IndexCommit("mail");

  EXPECT_TRUE(Succeeds(Fileindexctl({"suggest", "her", "--share", "docs"}), "heron\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"suggest", "HER", "--share", "mail", "--json"}), "[\"hero\",\"heron\"]\n"));
  EXPECT_THAT(Fileindexctl({"suggest", "her"}).output, AllOf(HasSubstr("heron\n"), HasSubstr("hero\n")));
  EXPECT_THAT(Parse(Fileindexctl({"suggest", "her", "--json", "--limit", "1"}).output).size(), 1U);
  EXPECT_TRUE(Succeeds(Fileindexctl({"suggest", "zzz"})));
}

TEST_F(SearchCommands, IndexListShowsEachIndexWithItsState) {
  elastic::ShareIndexPause("mail");

  EXPECT_TRUE(Succeeds(Fileindexctl({"index", "list", "--json"}),
                       R"([{"id":"fileindex_docs","path":")" + OnFirst("@fileindex/docs/db") +
                           R"(","problem":"","state":"open"},{"id":"fileindex_mail","path":")" +
                           OnSecond("@fileindex/mail/db") + R"(","problem":"","state":"paused"}])" + "\n"));
  EXPECT_THAT(Fileindexctl({"index", "list"}).output,
              MatchesRegex("INDEX +STATE +PATH +PROBLEM\nfileindex_docs  open    .*/db  -\n"
                           "fileindex_mail  paused  .*/db  -\n"));
}

TEST_F(SearchCommands, IndexStatCountsAndCheckSaysThatAllIsWell) {
  IndexHerons();

  const ProcessResult text = Fileindexctl({"index", "stat", "docs", "--check"});
  const Json::Value stat = Parse(Fileindexctl({"index", "stat", "docs", "--json"}).output);

  EXPECT_EQ(text.exit_status, 0);
  EXPECT_THAT(text.output, AllOf(HasSubstr("documents:       2\n"), HasSubstr("uncommitted:     no\n"),
                                 HasSubstr("checked:         yes\n"), HasSubstr("problem:         -\n")));
  EXPECT_EQ(stat["documents"], 2);
  EXPECT_GT(stat["bytes"].asInt64(), 0);
  EXPECT_FALSE(stat.isMember("checked"));
}

TEST_F(SearchCommands, ACheckOfAnIndexThatIsNotOpenIsNoSuccess) {
  elastic::ShareIndexPause("docs");

  const ProcessResult result = Fileindexctl({"index", "stat", "docs", "--check"});

  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.errors, "");
  EXPECT_THAT(result.output, AllOf(HasSubstr("state:           paused\n"), HasSubstr("checked:         no\n")));
  EXPECT_EQ(Fileindexctl({"index", "stat", "docs"}).exit_status, 0);
}

TEST_F(SearchCommands, IndexCreateMakesTheIndexThatTheLibraryFills) {
  AddShare(OnFirst("photo"));

  EXPECT_TRUE(Succeeds(Fileindexctl({"index", "create", "photo"})));

  Index("photo", OnFirst("photo/a.txt"), "kingfisher");
  elastic::IndexCommit("photo");
  EXPECT_THAT(Find({"kingfisher"}), ElementsAre(OnFirst("photo/a.txt")));
  EXPECT_THAT(Fileindexctl({"index", "create", "photo"}).errors, StartsWith("fileindexctl: error 1220: "));
  EXPECT_TRUE(FailsWith(Fileindexctl({"index", "create", "nope"}), "fileindexctl: error 800: nope (no such share)"));
}

TEST_F(SearchCommands, IndexDeleteRemovesTheIndexAndNoFileOfTheShare) {
  IndexHerons();

  EXPECT_TRUE(FailsWith(Fileindexctl({"index", "delete", "docs"}),
                        "fileindexctl: nothing was done: this needs --yes where nobody can be asked"));
  EXPECT_TRUE(fs::exists(OnFirst("@fileindex/docs/db")));
  EXPECT_TRUE(Succeeds(Fileindexctl({"index", "delete", "docs", "--yes"})));

  EXPECT_FALSE(fs::exists(OnFirst("@fileindex/docs/db")));
  EXPECT_TRUE(fs::exists(OnFirst("docs/a.txt")));
  EXPECT_THAT(Find({"heron"}), ElementsAre(OnSecond("mail/c.txt")));
  EXPECT_THAT(Fileindexctl({"index", "delete", "docs", "--yes"}).errors, StartsWith("fileindexctl: error 1204: "));
}

TEST_F(SearchCommands, ExtractShowsFieldsAndText) {
  const std::string path = OnFirst("docs/a.html");
  WriteFile(path, "<title>Marsh</title><p>One heron.<p>Two.");

  const ProcessResult text = Fileindexctl({"extract", path});
  const Json::Value response = Parse(Fileindexctl({"extract", path, "--json"}).output);

  EXPECT_EQ(text.exit_status, 0);
  EXPECT_THAT(text.output, AllOf(HasSubstr("\nNIMOMDPath "), HasSubstr("  " + path + "\n"), HasSubstr("  Marsh\n"),
                                 EndsWith("\n\nOne heron.\nTwo.\n")));
  EXPECT_EQ(response["data"]["NIMOMDTitle"], "Marsh");
  EXPECT_EQ(response["data"]["NIMOMDPath"], path);
}

TEST_F(SearchCommands, ExtractSaysWhenAFileHasMoreTextThanIsIndexed) {
  WriteFile(OnFirst("docs/long.txt"), std::string(5 << 20, 'x'));
  WriteFile(OnFirst("docs/short.txt"), "x");
  const auto more = EndsWith("\nThere is more text than is indexed of one file.\n");

  EXPECT_THAT(Fileindexctl({"extract", OnFirst("docs/long.txt")}).output, more);
  EXPECT_THAT(Fileindexctl({"extract", OnFirst("docs/short.txt")}).output, Not(more));
}

TEST_F(SearchCommands, ExtractTakesAPathFromTheWorkingFolder) {
  const fs::path before = fs::current_path();
  const std::string program = OnFirst("docs");
  WriteFile(OnFirst("docs/a.txt"), "heron");
  const std::string tool = BuiltProgram("fileindexctl");
  fs::current_path(program);

  const ProcessResult result = RunProcess({tool, "extract", "a.txt"});

  fs::current_path(before);
  EXPECT_THAT(result.output, EndsWith("\n\nheron\n"));
}

TEST_F(SearchCommands, ExtractSaysWhatIsBrokenAndWhatCannotBeOpened) {
  WriteFile(OnFirst("docs/a.pdf"), "%PDF-1.4\nrubbish");

  const ProcessResult broken = Fileindexctl({"extract", OnFirst("docs/a.pdf")});
  const ProcessResult missing = Fileindexctl({"extract", OnFirst("docs/missing")});

  EXPECT_EQ(broken.exit_status, 0);
  EXPECT_THAT(broken.output, HasSubstr("\nThe content is broken: "));
  EXPECT_EQ(missing.exit_status, 1);
  EXPECT_THAT(missing.errors, StartsWith("fileindexctl: error 2: "));
}

TEST_F(SearchCommands, WithoutTheDaemonsTheCommandsFailAtOnce) {
  KillSearchDaemon();
  StopExtractor();
  fs::remove("/var/run/nimoelasticd.sock");

  EXPECT_TRUE(FailsWith(Fileindexctl({"search", "heron"}), kNoSearchDaemon));
  EXPECT_TRUE(FailsWith(Fileindexctl({"suggest", "her"}), kNoSearchDaemon));
  EXPECT_TRUE(FailsWith(Fileindexctl({"index", "list"}), kNoSearchDaemon));
  EXPECT_TRUE(FailsWith(Fileindexctl({"index", "create", "docs"}), kNoSearchDaemon));
  EXPECT_THAT(Fileindexctl({"extract", "/"}).errors,
              StartsWith("fileindexctl: error 914: the extractor cannot be reached at "));
}

TEST_F(SearchCommands, WrongUsageIsStatusTwo) {
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"search"}), "QUERY is required"));
  EXPECT_EQ(Fileindexctl({"search", "heron", "--sort", "color"}).exit_status, 2);
  EXPECT_EQ(Fileindexctl({"search", "heron", "--limit", "-1"}).exit_status, 2);
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"suggest"}), "PREFIX is required"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"extract"}), "FILE is required"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"index"}), "A subcommand is required"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"index", "rebuild"}), "No such command: rebuild"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"index", "stat"}), "SHARE is required"));
}

}  // namespace
}  // namespace orbisk::test
