// Pending operations: their numbers, their printed form, and merging switches.
#include <gtest/gtest.h>

#include <sstream>

#include "orbisk/error.h"
#include "orbisk/fileindex/optree.h"
#include "orbisk/json.h"
#include "tests/unit/fileindex/queue_lines.h"

namespace orbisk::fileindex::test {
namespace {

std::shared_ptr<OPNode> NodeAt(OPTree& tree, const std::string& path) {
  return tree.GetNodeByPath(path);
}

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(fromString(value, text)) << text;
  return value;
}

std::string Merged(const std::string& data, const std::string& incoming) {
  OP op(nullptr, OP_UPDATE_DIRECTORY, "", Parse(data));
  op.MergeData(Parse(incoming));
  return toString(op.data);
}

TEST(Op, KindsHaveTheNumbersThatConsumersKnow) {
  EXPECT_EQ(0, OP_NONE);
  EXPECT_EQ(1, OP_DELETE);
  EXPECT_EQ(2, OP_UPDATE);
  EXPECT_EQ(3, OP_ATTR);
  EXPECT_EQ(4, OP_UPDATE_DIRECTORY);
  EXPECT_EQ(5, OP_RENAME);
  EXPECT_EQ(6, OP_REINDEX);
  EXPECT_EQ(7, OP_QUEUE_CRASHED);
}

TEST(Op, StoresItsFields) {
  const auto tree = EmptyTree();
  const auto node = NodeAt(*tree, "/a");
  const OP op(node, OP_ATTR, "/old", Json::Value(5));
  EXPECT_EQ(node, op.node);
  EXPECT_EQ(OP_ATTR, op.op);
  EXPECT_EQ("/old", op.path);
  EXPECT_EQ(Json::Value(5), op.data);
}

TEST(Op, AnyOperationIsFiledWithNoOldPathAndNoData) {
  const auto tree =
      TreeOf({Create("/a"), Reindex("/b"), R"({"event":64,"path":"/c","path_old":"/x","data":{"audio":true}})"});
  tree->ProcessOP([](const std::shared_ptr<OP>& op) {
    EXPECT_EQ("", op->path);
    EXPECT_TRUE(op->data.isNull());
  });
}

TEST(OpPrint, RenameShowsBothPaths) {
  const auto tree = EmptyTree();
  std::ostringstream text;
  text << std::make_shared<OP>(NodeAt(*tree, "/volume1/a/y"), OP_RENAME, "/volume1/a/x", Json::Value());
  EXPECT_EQ("[05] /volume1/a/x -> /volume1/a/y, data=null", text.str());
}

TEST(OpPrint, TheArrowGoesByKindAndNotByTheOldPath) {
  const auto tree = EmptyTree();
  std::ostringstream text;
  text << std::make_shared<OP>(NodeAt(*tree, "/a"), OP_UPDATE, "/old", Json::Value());
  text << std::make_shared<OP>(NodeAt(*tree, "/a"), OP_RENAME, "", Json::Value());
  EXPECT_EQ("[02] /a, data=null[05]  -> /a, data=null", text.str());
}

TEST(OpPrint, KindsHaveTwoDigits) {
  const auto tree = EmptyTree();
  for (int kind = 0; kind <= 7; ++kind) {
    std::ostringstream text;
    text << std::make_shared<OP>(NodeAt(*tree, "/a"), static_cast<FileIndexOP>(kind), "", Json::Value());
    EXPECT_EQ("[0" + std::to_string(kind) + "] ", text.str().substr(0, 5));
  }
}

TEST(OpPrint, DataIsPrintedAsText) {
  const auto tree = EmptyTree();
  std::ostringstream text;
  text << std::make_shared<OP>(NodeAt(*tree, "/a"), OP_UPDATE_DIRECTORY, "", Parse(R"({"b":[1],"a":"x"})"));
  EXPECT_EQ(R"([04] /a, data={"a":"x","b":[1]})", text.str());
}

TEST(OpPrint, TheFillCharacterOfTheStreamStaysZero) {
  const auto tree = EmptyTree();
  std::ostringstream text;
  text << std::make_shared<OP>(NodeAt(*tree, "/a"), OP_UPDATE, "", Json::Value());
  EXPECT_EQ('0', text.fill());
  EXPECT_EQ(0, text.width());
}

TEST(OpPrint, TheRootHasAnEmptyPath) {
  const auto tree = EmptyTree();
  std::ostringstream text;
  text << std::make_shared<OP>(NodeAt(*tree, "/a")->parent, OP_QUEUE_CRASHED, "", Json::Value());
  EXPECT_EQ("[07] , data=null", text.str());
}

TEST(MergeData, IsTheLogicalOrOfTheFiveSwitchesAndKeepsForeignMembers) {
  EXPECT_EQ(R"({"audio":true,"basic":false,"document":true,"number":7,"photo":false,"video":false})",
            Merged(R"({"document":true,"photo":"yes","number":7})", R"({"audio":true})"));
}

TEST(MergeData, AllFiveSwitchesArePresentAfterwards) {
  EXPECT_EQ(R"({"audio":false,"basic":false,"document":false,"photo":false,"video":false})", Merged("{}", "{}"));
}

TEST(MergeData, EachSwitchOfEitherSideIsKept) {
  for (const std::string name : {"document", "audio", "video", "photo", "basic"}) {
    const std::string on = "{\"" + name + "\":true}";
    EXPECT_TRUE(Parse(Merged(on, "{}"))[name].asBool()) << name;
    EXPECT_TRUE(Parse(Merged("{}", on))[name].asBool()) << name;
    EXPECT_TRUE(Parse(Merged(on, "{\"" + name + "\":false}"))[name].asBool()) << name;
    EXPECT_FALSE(Parse(Merged("{\"" + name + "\":false}", "{}"))[name].asBool()) << name;
  }
}

TEST(MergeData, IncomingSwitchesAreConvertedButExistingOnesMustBeBooleans) {
  EXPECT_TRUE(Parse(Merged("{}", R"({"audio":1})"))["audio"].asBool());
  const Json::Value merged = Parse(Merged(R"({"audio":1,"video":"true","photo":null})", "{}"));
  EXPECT_EQ(Json::Value(false), merged["audio"]) << "an existing 1 is lost";
  EXPECT_EQ(Json::Value(false), merged["video"]);
  EXPECT_EQ(Json::Value(false), merged["photo"]);
}

TEST(MergeData, AnIncomingSwitchThatDoesNotConvertCountsAsOff) {
  EXPECT_EQ(Json::Value(false), Parse(Merged("{}", R"({"audio":"true"})"))["audio"]);
}

TEST(MergeData, ForeignMembersOfTheIncomingDataAreIgnored) {
  EXPECT_FALSE(Parse(Merged("{}", R"({"other":true,"audio":true})")).isMember("other"));
}

TEST(MergeData, StartsFromAnEmptyObjectWhereThereIsNone) {
  const std::string expected = R"({"audio":true,"basic":false,"document":false,"photo":false,"video":false})";
  for (const char* data : {"null", "5", "\"x\"", "[1,2]", "true"}) {
    EXPECT_EQ(expected, Merged(data, R"({"audio":true})")) << data;
  }
}

TEST(MergeData, RefusesIncomingDataThatIsNoObjectAndChangesNothing) {
  for (const char* incoming : {"null", "[]", "5", "\"audio\""}) {
    OP op(nullptr, OP_UPDATE_DIRECTORY, "", Parse(R"({"audio":1})"));
    EXPECT_EQ("120 Not an object, data=" + std::string(incoming), ErrorOf([&] { op.MergeData(Parse(incoming)); }));
    EXPECT_EQ(R"({"audio":1})", toString(op.data));
  }
}

TEST(MergeData, IntoItselfMakesItsSwitchesBooleans) {
  OP op(nullptr, OP_UPDATE_DIRECTORY, "", Parse(R"({"audio":true,"video":1,"other":2})"));
  op.MergeData(op.data);
  EXPECT_EQ(R"({"audio":true,"basic":false,"document":false,"other":2,"photo":false,"video":true})", toString(op.data));
}

}  // namespace
}  // namespace orbisk::fileindex::test
