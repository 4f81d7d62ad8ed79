// What is drawn of the indexing daemon's status fits the terminal.
#include "tools/fileindexctl/progress_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "tools/fileindexctl/columns.h"

namespace fileindexctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

Json::Value Share(const std::string& name, const std::string& state, const std::string& file = "") {
  Json::Value share;
  share["share"] = name;
  share["state"] = state;
  share["done"] = 1;
  share["to_do"] = 1;
  share["file"] = file;
  return share;
}

TEST(ProgressLines, NeverTakeMoreColumnsThanTheTerminalHas) {
  std::string wide;
  for (int i = 0; i < 60; ++i) {
    wide += "\u4e2d";
  }
  Json::Value status;
  status["paused"] = true;
  status["shares"].append(Share("photo", "working", "/v/photo/" + wide + "\xff"));
  status["shares"].append(Share(wide, "working", "/v/e\u0301\u0301"));

  for (size_t columns = 1; columns < 160; ++columns) {
    for (const std::string& line : ProgressLines(status, columns, 23)) {
      EXPECT_LE(ColumnsOf(line), columns) << line;
    }
  }
}

TEST(ProgressLines, BarsStandBelowEachOtherWhateverTheNamesAre) {
  Json::Value status;
  status["shares"].append(Share("photo", "working"));
  status["shares"].append(Share("\u4e2d\u6587", "working"));

  const std::vector<std::string> lines = ProgressLines(status, 79, 23);

  EXPECT_THAT(lines, ElementsAre(StartsWith("photo  [####"), StartsWith("\u4e2d\u6587   [####")));
}

TEST(ProgressLines, SharesWithNothingToDoAreLeftOutFirst) {
  Json::Value status;
  for (const char* const name : {"a", "b", "c", "d"}) {
    status["shares"].append(Share(name, "idle"));
  }
  status["shares"].append(Share("busy", "working", "/v/busy/file"));

  const std::vector<std::string> lines = ProgressLines(status, 79, 4);

  ASSERT_THAT(lines, SizeIs(testing::Le(4U)));
  EXPECT_THAT(lines.front(), StartsWith("busy"));
  EXPECT_THAT(lines.back(), HasSubstr("more shares"));
}

}  // namespace
}  // namespace fileindexctl
