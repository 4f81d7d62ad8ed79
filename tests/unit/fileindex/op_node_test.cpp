// A node of the operation tree: children, path, operations, printed form.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "orbisk/fileindex/optree.h"
#include "tests/unit/fileindex/queue_lines.h"

namespace orbisk::fileindex::test {
namespace {

std::shared_ptr<OPNode> Root() {
  return std::make_shared<OPNode>(nullptr, "");
}

// Parents and children own one another; a tree unties its own nodes, a test those that it makes alone.
void Untie(const std::shared_ptr<OPNode>& node) {
  for (const auto& child : node->children) {
    Untie(child);
  }
  node->children.clear();
  node->ops.clear();
}

std::shared_ptr<OP> Add(const std::shared_ptr<OPNode>& node, FileIndexOP kind) {
  node->ops.push_back(std::make_shared<OP>(node, kind, "", Json::Value()));
  return node->ops.back();
}

TEST(OpNode, StartsWithItsNameAndParentAlone) {
  const auto root = Root();
  const auto node = std::make_shared<OPNode>(root, "a");
  EXPECT_EQ("a", node->name);
  EXPECT_EQ(root, node->parent);
  EXPECT_TRUE(node->children.empty());
  EXPECT_TRUE(node->ops.empty());
  EXPECT_TRUE(root->children.empty()) << "only GetChild adds to the parent";
}

TEST(OpNode, GetChildMakesAChildOnceAndAppendsIt) {
  const auto root = Root();
  const auto b = root->GetChild("b");
  const auto a = root->GetChild("a");
  EXPECT_EQ(b, root->GetChild("b"));
  EXPECT_EQ(root, b->parent);
  EXPECT_EQ((std::vector<std::shared_ptr<OPNode>>{b, a}), root->children) << "in the order made";
  Untie(root);
}

TEST(OpNode, NamesAreComparedByteByByte) {
  const auto root = Root();
  const std::vector<std::string> names = {
      "a", "A", "\xc3\xa9", "e\xcc\x81", std::string("a\0b", 3), std::string("a\0c", 3), "a ", " a", "\xff"};
  std::vector<std::shared_ptr<OPNode>> made;
  for (const std::string& name : names) {
    made.push_back(root->GetChild(name));
  }
  EXPECT_EQ(names.size(), root->children.size());
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(made[i], root->GetChild(names[i]));
    EXPECT_EQ(names[i], made[i]->name);
  }
  Untie(root);
}

TEST(OpNode, ManyChildrenKeepTheirOrderAndAreFound) {
  constexpr int kMany = 5'000;
  const auto root = Root();
  std::vector<std::shared_ptr<OPNode>> made;
  for (int i = 0; i < kMany; ++i) {
    made.push_back(root->GetChild("n" + std::to_string(i)));
    EXPECT_EQ(made[static_cast<size_t>(i / 2)], root->GetChild("n" + std::to_string(i / 2)));
  }
  EXPECT_EQ(made, root->children);
  Untie(root);
}

TEST(OpNode, PathsAreJoinedFromTheRoot) {
  const auto root = Root();
  const auto volume = root->GetChild("volume1");
  EXPECT_EQ("", root->GetPath());
  EXPECT_EQ("/volume1", volume->GetPath());
  EXPECT_EQ("/volume1/share", volume->GetChild("share")->GetPath());
  Untie(root);
}

TEST(OpNode, TraverseVisitsLiveOperationsInFilingOrder) {
  const auto node = Root();
  Add(node, OP_UPDATE);
  Add(node, OP_NONE);
  Add(node, OP_DELETE);
  std::vector<int> kinds;
  node->TraverseOP([&](const std::shared_ptr<OP>& op) { kinds.push_back(op->op); });
  EXPECT_EQ((std::vector<int>{OP_UPDATE, OP_DELETE}), kinds);
  Untie(node);
}

TEST(OpNode, TraverseSkipsWhatAnEarlierVisitCancelled) {
  const auto node = Root();
  Add(node, OP_UPDATE);
  const auto second = Add(node, OP_ATTR);
  Add(node, OP_DELETE);
  std::vector<int> kinds;
  node->TraverseOP([&](const std::shared_ptr<OP>& op) {
    kinds.push_back(op->op);
    second->op = OP_NONE;
  });
  EXPECT_EQ((std::vector<int>{OP_UPDATE, OP_DELETE}), kinds);
  Untie(node);
}

TEST(OpNode, TraverseIsNotDisturbedByChangesOfTheList) {
  const auto node = Root();
  Add(node, OP_UPDATE);
  Add(node, OP_ATTR);
  int visits = 0;
  node->TraverseOP([&](const std::shared_ptr<OP>&) {
    ++visits;
    node->ops.erase(node->ops.begin());
    Add(node, OP_REINDEX);
  });
  EXPECT_EQ(2, visits);
  EXPECT_EQ(2U, node->ops.size());
  Untie(node);
}

TEST(OpNode, AnEmptyFunctionFailsWhenItIsFirstCalled) {
  const auto node = Root();
  Add(node, OP_NONE);
  EXPECT_NO_THROW(node->TraverseOP(nullptr));
  Add(node, OP_UPDATE);
  EXPECT_THROW(node->TraverseOP(nullptr), std::bad_function_call);
  Untie(node);
}

TEST(OpNodePrint, ShowsTheNameAndEveryOperationCancelledOnesIncluded) {
  const auto tree = TreeOf({Create("/d/f"), Modify("/d/other"), Rename("/d/f", "/d/g")});
  std::ostringstream text;
  text << tree->GetNodeByPath("/d/g");
  EXPECT_EQ(
      "Node[g]: \n"
      "  [00] /d/g, data=null\n"
      "  [05] /d/f -> /d/g, data=null\n"
      "  [02] /d/g, data=null\n",
      text.str());
}

TEST(OpNodePrint, ANodeWithoutOperationsIsOneLine) {
  const auto tree = EmptyTree();
  std::ostringstream text;
  text << tree->GetNodeByPath("/a/b") << tree->GetNodeByPath("/a")->parent;
  EXPECT_EQ("Node[b]: \nNode[]: \n", text.str());
}

}  // namespace
}  // namespace orbisk::fileindex::test
