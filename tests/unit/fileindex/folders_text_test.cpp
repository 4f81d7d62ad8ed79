// The folders file's own reader and writer, beside the JSON parser and writer that they stand in for.
#include "fileindex/folders_text.h"

#include <gtest/gtest.h>

#include "orbisk/json.h"

namespace orbisk::fileindex::test {
namespace {

using Folders = std::vector<std::shared_ptr<Folder>>;

// By way of JSON values.
Json::Value Data(const Folders& folders) {
  Json::Value data(Json::arrayValue);
  for (const auto& folder : folders) {
    data.append(folder->GetData());
  }
  return data;
}

// A folder whose every member differs from its neighbours', with `name` for its strings.
std::shared_ptr<Folder> Odd(const std::string& name, bool first) {
  Json::Value data;
  data["path"] = "/photo/" + name;
  data["name"] = name;
  data["group"] = "g" + name;
  data["owner"] = "o" + name;
  data["volume_to_be_clean"] = "v" + name;
  bool value = first;
  for (const char* const member : {"audio", "document", "paused", "photo", "privileged", "video"}) {
    data[member] = value;
    value = !value;
  }
  return std::make_shared<Folder>(data);
}

const std::string kPlain = toString(Data({Odd("one", true), Odd("two \xc3\xa9\xff /", false)}));

TEST(FoldersText, IsWhatTheJsonWriterWrites) {
  const Folders folders = {Odd("plain", true), Odd("quote\" slash\\ tab\t nul", false),
                           Odd("\x01\x1f\x7f\xff\xc3\xa9", true), Odd(std::string("a\0b", 3), false)};
  EXPECT_EQ(WriteFolders(folders), toString(Data(folders)));
  EXPECT_EQ(WriteFolders({}), toString(Data({})));
}

TEST(FoldersText, IsReadAsTheJsonParserReadsIt) {
  Folders folders;
  ASSERT_TRUE(ReadFolders(kPlain, folders));
  EXPECT_EQ(toString(Data(folders)), kPlain);
}

TEST(FoldersText, LeavesEveryOtherTextToTheParser) {
  std::vector<std::string> texts = {"", "[", "[]", "{}", "[" + kPlain + "]", kPlain + " ", kPlain + "]", " " + kPlain};
  for (size_t size = 0; size < kPlain.size(); ++size) {
    texts.push_back(kPlain.substr(0, size));
    texts.push_back(kPlain.substr(0, size) + " " + kPlain.substr(size));
    texts.push_back(kPlain.substr(0, size) + "\\" + kPlain.substr(size));
  }
  for (const std::string& text : texts) {
    Folders folders;
    if (ReadFolders(text, folders)) {
      Json::Value parsed;
      ASSERT_TRUE(fromString(parsed, text)) << text;
      EXPECT_EQ(Data(folders), parsed) << text;  // a blank in a name
    } else {
      EXPECT_TRUE(folders.empty());
    }
  }
}

TEST(FoldersText, LeavesEscapesAndTheReservedGroupToTheParser) {
  for (const std::string member : {"\"name\":\"one\"", "\"group\":\"gone\""}) {
    const bool group = member[1] == 'g';
    std::string text = kPlain;
    text.replace(text.find(member), member.size(), group ? R"("group":"all")" : R"("name":"a\u0062")");
    Folders folders;
    EXPECT_FALSE(ReadFolders(text, folders)) << text;
  }
}

}  // namespace
}  // namespace orbisk::fileindex::test
