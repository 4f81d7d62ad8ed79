// The completion of commands, options and share names in bash, as bash asks for it; and that each command explains
// itself and is in the manual.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/private_etc.h"
#include "tests/system/fileindexctl_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::UnorderedElementsAre;

std::vector<std::string> LinesOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

// What is offered for the last of `words` behind "fileindexctl".
std::vector<std::string> Offered(const std::vector<std::string>& words) {
  const std::string program = BuiltProgram("fileindexctl");
  std::vector<std::string> command = {"bash",
                                      "-c",
                                      "PATH=$1:$PATH; . \"$2\"; shift 2; COMP_WORDS=(fileindexctl \"$@\"); "
                                      "COMP_CWORD=$#; _fileindexctl; printf '%s\\n' \"${COMPREPLY[@]}\"",
                                      "bash",
                                      program.substr(0, program.rfind('/')),
                                      COMPLETION_FILE};
  command.insert(command.end(), words.begin(), words.end());
  const ProcessResult result = RunProcess(command);
  EXPECT_EQ(result.errors, "");
  std::vector<std::string> lines = LinesOf(result.output);
  lines.erase(std::remove(lines.begin(), lines.end(), ""), lines.end());
  return lines;
}

class Completion : public Box {
 protected:
  void SetUp() override {
    Box::SetUp();
    AddShare(OnFirst("photo"));
    AddShare(OnFirst("phones and tablets"));
    AddShare(OnFirst("music"));
  }
};

TEST_F(Completion, OffersCommands) {
  EXPECT_THAT(Offered({""}), IsSupersetOf({"share", "folder", "status", "search"}));
  EXPECT_THAT(Offered({"sha"}), ElementsAre("share"));
  EXPECT_THAT(Offered({"share", "re"}), UnorderedElementsAre("rename", "resume", "rebuild", "register"));
  EXPECT_THAT(Offered({"share", "nonsense", ""}), Not(Contains("rename")));
}

TEST_F(Completion, OffersOptionsOfTheCommand) {
  EXPECT_THAT(Offered({"status", "--"}), IsSupersetOf({"--json", "--watch", "--until-done"}));
  EXPECT_THAT(Offered({"folder", "add", "--no"}), ElementsAre("--no-privileged"));
  EXPECT_THAT(Offered({"share", "rebuild", "photo", "-"}), UnorderedElementsAre("-h", "--help", "-y", "--yes"));
}

TEST_F(Completion, OffersShareNamesWhereAShareIsMeant) {
  EXPECT_THAT(Offered({"share", "pause", ""}), UnorderedElementsAre("photo", "phones\\ and\\ tablets", "music"));
  EXPECT_THAT(Offered({"share", "move-name", "m"}), ElementsAre("music"));
  EXPECT_THAT(Offered({"search", "--share", "photo", "--share", "m"}), ElementsAre("music"));
  EXPECT_THAT(Offered({"index", "stat", "--check", "phot"}), ElementsAre("photo"));
  EXPECT_THAT(Offered({"folder", "add", "/m"}), ElementsAre("/music"));
  EXPECT_THAT(Offered({"user", "rename", ""}), IsEmpty());
}

TEST_F(Completion, OffersIndexedFoldersWhereOneIsMeant) {
  WriteFolders({Entry("/photo/2019", "a"), Entry("/photo/from ann", "b"), Entry("/music", "c")});

  EXPECT_THAT(Offered({"folder", "set", "/ph"}), UnorderedElementsAre("/photo/2019", "/photo/from\\ ann"));
  EXPECT_THAT(Offered({"folder", "get", ""}), UnorderedElementsAre("/photo/2019", "/photo/from\\ ann", "/music"));
  EXPECT_THAT(Offered({"folder", "delete", "/music", "/photo/2"}), ElementsAre("/photo/2019"));
}

TEST_F(Completion, KnowsWhichOptionsTakeAValue) {
  EXPECT_THAT(Offered({"folder", "list", "--offset", "-"}), IsEmpty());
  EXPECT_THAT(Offered({"folder", "list", "--desc", "--j"}), ElementsAre("--json"));
  EXPECT_THAT(Offered({"status", "--watch", "--share", "m"}), ElementsAre("music"));
  EXPECT_THAT(Offered({"failures", "--share", "m"}), ElementsAre("music"));
}

TEST_F(Completion, OffersAccountsWhereOneIsSearchedFor) {
  AddPrivateAccount("ann", 1001, 1001);
  AddPrivateAccount("bob", 1002, 1002);

  EXPECT_THAT(Offered({"search", "heron", "--as", "a"}), ElementsAre("ann"));
}

TEST_F(Completion, OffersTheWordsThatAnOptionOrArgumentTakes) {
  EXPECT_THAT(Offered({"search", "--sort", "re"}), ElementsAre("relevance"));
  EXPECT_THAT(Offered({"home", "enable", ""}), UnorderedElementsAre("local", "directory"));
  EXPECT_THAT(Offered({"folder", "add", "--kinds", "d"}), ElementsAre("document"));
}

TEST_F(Completion, OffersFilesWhereAFileIsMeant) {
  EXPECT_THAT(Offered({"extract", OnFirst("pho")}),
              UnorderedElementsAre(OnFirst("photo"), OnFirst("phones and tablets")));
  EXPECT_THAT(Offered({"share", "register", "x", OnFirst("mu")}), ElementsAre(OnFirst("music")));
}

// Words of the lines that begin with two blanks below the line `section` of a help text.
std::vector<std::string> Section(const std::string& help, const std::string& section) {
  std::vector<std::string> words;
  bool inside = false;
  for (const std::string& line : LinesOf(help)) {
    if (line == section) {
      inside = true;
    } else if (!line.empty() && line.front() != ' ') {
      inside = false;
    } else if (inside && line.size() > 2 && line[2] != ' ') {
      words.push_back(line.substr(2, line.find(' ', 2) - 2));
    }
  }
  return words;
}

bool IsExplained(const std::string& command, const std::vector<std::string>& headings) {
  return std::any_of(headings.begin(), headings.end(),
                     [&](const std::string& heading) { return (heading + " ").rfind(command + " ", 0) == 0; });
}

// A command, or a group of them, and what it says of itself.
struct Explained {
  std::string name;  // "" of the program as a whole
  std::vector<std::string> commands;
  ProcessResult help;
};

std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

// The command `words`, with all below it.
std::vector<Explained> AllCommands(const std::vector<std::string>& words = {}) {
  std::vector<std::string> command = words;
  command.emplace_back("--help");
  const ProcessResult help = Fileindexctl(command);
  std::vector<Explained> all = {{Joined(words), Section(help.output, "Subcommands:"), help}};
  for (const std::string& name : Section(help.output, "Subcommands:")) {
    command.back() = name;
    const std::vector<Explained> deeper = AllCommands(command);
    all.insert(all.end(), deeper.begin(), deeper.end());
  }
  return all;
}

TEST(Help, EveryCommandExplainsItself) {
  const std::vector<Explained> all = AllCommands();

  EXPECT_GT(all.size(), 60U);
  for (const auto& [name, commands, help] : all) {
    EXPECT_EQ(help.exit_status, 0) << name;
    EXPECT_EQ(help.errors, "") << name;
    EXPECT_THAT(help.output, HasSubstr("Usage: fileindexctl" + (name.empty() ? "" : " " + name) + " [OPTIONS]"));
  }
}

// Of the manual; without the backslashes, most of which stand before a "-".
std::string Page(const std::string& name) {
  std::string page = ReadFile(std::string(MANUAL_FOLDER) + "/" + name);
  page.erase(std::remove(page.begin(), page.end(), '\\'), page.end());
  return page;
}

bool HasPage(const std::string& name) {
  return fs::exists(std::string(MANUAL_FOLDER) + "/" + name);
}

TEST(Manual, HasAPageForEachProgramAndEachFileFormatThatAPageRefersTo) {
  const fs::path program = BuiltProgram("fileindexctl");
  for (const fs::directory_entry& one : fs::directory_iterator(program.parent_path())) {
    const std::string name = one.path().filename();
    if (one.path().extension().empty()) {
      EXPECT_TRUE(HasPage(name + ".1") || HasPage(name + ".8")) << name;
    }
  }
  int references = 0;
  for (const fs::directory_entry& one : fs::directory_iterator(MANUAL_FOLDER)) {
    for (const std::string& line : LinesOf(Page(one.path().filename()))) {
      const size_t end = line.find(" (5)");
      if (line.rfind(".BR ", 0) == 0 && end != std::string::npos) {
        EXPECT_TRUE(HasPage(line.substr(4, end - 4) + ".5")) << one.path() << ": " << line;
        ++references;
      }
    }
  }
  EXPECT_GT(references, 10);
}

TEST(Manual, ExplainsEveryCommandAndNamesEveryOption) {
  const std::string page = Page("fileindexctl.1");
  std::vector<std::string> headings;  // of one command each: ".SS home enable, home disable" has two
  for (const std::string& line : LinesOf(page)) {
    if (line.rfind(".SS ", 0) == 0) {
      for (size_t at = 4; at < line.size();) {
        const size_t end = std::min(line.find(", ", at), line.size());
        headings.push_back(line.substr(at, end - at));
        at = end + 2;
      }
    }
  }

  for (const auto& [name, commands, help] : AllCommands()) {
    EXPECT_TRUE(!commands.empty() || IsExplained(name, headings)) << name;
    for (const std::string& names : Section(help.output, "Options:")) {
      std::istringstream options(names.substr(0, names.find('{')));
      for (std::string option; std::getline(options, option, ',');) {
        EXPECT_TRUE(option == "-h" || page.find(option) != std::string::npos) << name << " " << option;
      }
    }
  }
}

}  // namespace
}  // namespace orbisk::test
