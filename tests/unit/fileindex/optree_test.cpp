// The operation tree's structure: lookup, walks, depth, ownership, delivery.
#include "orbisk/fileindex/optree.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <functional>

#include "orbisk/error.h"
#include "tests/support/record_capture.h"
#include "tests/unit/fileindex/queue_lines.h"
#include "tests/unit/record_match.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::RecordCapture;
using orbisk::test::RecordText;
using orbisk::test::WithoutLine;

std::vector<std::string> Walk(OPTree& tree, const std::string& path, bool exclude_self) {
  std::vector<std::string> names;
  tree.TraverseNodeDescendant(
      tree.GetNodeByPath(path), [&](const std::shared_ptr<OPNode>& node) { names.push_back(node->name); },
      exclude_self);
  return names;
}

TEST(Lookup, TheSamePathIsTheSameNode) {
  const auto tree = EmptyTree();
  EXPECT_EQ(tree->GetNodeByPath("/a/b"), tree->GetNodeByPath("/a/b"));
  EXPECT_EQ((std::vector<std::string>{"/a/b", "/a"}), Places(*tree)) << "and nothing else is made";
}

TEST(Lookup, NodesKnowTheirPlace) {
  const auto tree = EmptyTree();
  const auto node = tree->GetNodeByPath("/a/b");
  EXPECT_EQ("b", node->name);
  EXPECT_EQ("/a/b", node->GetPath());
  EXPECT_EQ(tree->GetNodeByPath("/a"), node->parent);
  EXPECT_EQ(nullptr, node->parent->parent->parent) << "the root has no parent";
}

TEST(Lookup, WhatIsNoPlainAbsolutePathIsRefused) {
  const auto tree = EmptyTree();
  for (const std::string path : {"", "/", "//", "///", "a", "a/b", "/a/", "//a", "/a//b", "/a/b//", "a/"}) {
    EXPECT_EQ("9999 GetNodeByPath failed, path=" + path, ErrorOf([&] { tree->GetNodeByPath(path); }));
  }
}

TEST(Lookup, ARefusedPathLeavesTheNodesMadeOnTheWay) {
  const auto made_by = [](const std::string& path) {
    const auto tree = EmptyTree();
    EXPECT_THROW(tree->GetNodeByPath(path), Error);
    return Places(*tree);
  };
  EXPECT_EQ((std::vector<std::string>{"/a/b", "/a"}), made_by("/a/b/"));
  EXPECT_EQ((std::vector<std::string>{"/a/b", "/a"}), made_by("/a//b"));
  EXPECT_EQ((std::vector<std::string>{"/a/b", "/a"}), made_by("a/b"));
  EXPECT_TRUE(made_by("/").empty());
  EXPECT_TRUE(made_by("").empty());
}

TEST(Lookup, DotsAreNamesLikeOthers) {
  const auto tree = EmptyTree();
  EXPECT_EQ("/a/../b/.", tree->GetNodeByPath("/a/../b/.")->GetPath());
}

TEST(Lookup, NamesThatDifferInCaseAreDifferentNodes) {
  const auto tree = EmptyTree();
  EXPECT_NE(tree->GetNodeByPath("/a/X"), tree->GetNodeByPath("/a/x"));
}

TEST(Lookup, ARefusalLeavesOneRecord) {
  const auto tree = EmptyTree();
  const RecordCapture capture;
  errno = 0;
  EXPECT_THROW(tree->GetNodeByPath("/a/"), Error);
  ASSERT_EQ(1U, capture.records().size());
  EXPECT_EQ(3, capture.records()[0].priority);
  EXPECT_EQ("%s:%d (%d, %u) (%s) Failed [%s], reason: %s", capture.records()[0].format);
  const std::string text = WithoutLine(capture.records()[0].text);
  EXPECT_EQ(0U, text.find(RecordText("optree.cpp", "GetNodeByPath", "Failed ["))) << text;
  EXPECT_NE(std::string::npos, text.find("], reason: GetNodeByPath failed, path=/a/")) << text;
}

TEST(Walk, IsPostOrderWithSiblingsInTheOrderMade) {
  const auto tree = EmptyTree();
  for (const char* path : {"/a/b", "/a/c", "/a/b/d"}) {
    tree->GetNodeByPath(path);
  }
  EXPECT_EQ((std::vector<std::string>{"d", "b", "c", "a"}), Walk(*tree, "/a", false));
  EXPECT_EQ((std::vector<std::string>{"d", "b", "c"}), Walk(*tree, "/a", true));
  EXPECT_EQ((std::vector<std::string>{"/a/b/d", "/a/b", "/a/c", "/a"}), Places(*tree)) << "from the root";
}

TEST(Walk, ALeafIsVisitedUnlessExcluded) {
  const auto tree = EmptyTree();
  EXPECT_TRUE(Walk(*tree, "/leaf", true).empty());
  EXPECT_EQ(std::vector<std::string>{"leaf"}, Walk(*tree, "/leaf", false));
}

TEST(Walk, ChildrenAreTakenWhenTheWalkEntersTheirParent) {
  const auto tree = EmptyTree();
  tree->GetNodeByPath("/a/x");
  tree->GetNodeByPath("/b");
  std::vector<std::string> visited;
  tree->TraverseNodeDescendant(
      tree->GetNodeByPath("/a")->parent,
      [&](const std::shared_ptr<OPNode>& node) {
        visited.push_back(node->GetPath());
        tree->GetNodeByPath("/a/late");
        tree->GetNodeByPath("/b/early");
        tree->GetNodeByPath("/new");
      },
      true);
  EXPECT_EQ((std::vector<std::string>{"/a/x", "/a", "/b/early", "/b"}), visited);
}

TEST(Walk, ARenameDuringTheWalkMakesItsPlacesAtOnce) {
  const auto tree = EmptyTree();
  tree->GetNodeByPath("/a/x");
  tree->GetNodeByPath("/b");
  std::vector<std::string> visited;
  tree->TraverseNodeDescendant(
      tree->GetNodeByPath("/a")->parent,
      [&](const std::shared_ptr<OPNode>& node) {
        visited.push_back(node->GetPath());
        if (node->name == "a") {
          Insert(*tree, Rename("/a", "/b"));
        }
      },
      true);
  EXPECT_EQ((std::vector<std::string>{"/a/x", "/a", "/b/x", "/b"}), visited);
}

TEST(Walk, AnEmptyFunctionFailsWhenItIsFirstCalled) {
  const auto tree = EmptyTree();
  const auto leaf = tree->GetNodeByPath("/leaf");
  EXPECT_NO_THROW(tree->TraverseNodeDescendant(leaf, nullptr, true));
  EXPECT_THROW(tree->TraverseNodeDescendant(leaf, nullptr, false), std::bad_function_call);
}

TEST(Delivery, IsInFilingOrderAndNotInTreeOrder) {
  EXPECT_EQ((std::vector<std::string>{"[02] /z/f", "[03] /a", "[01] /z", "count=3"}),
            Fold({Create("/z/f"), Attrib("/a"), Delete("/z")}));
}

TEST(Delivery, CountsCancelledEntriesAndSkipsThem) {
  // The reindex of /d cancels what is pending on /d/1 and /d/2.
  const auto tree = TreeOf({Create("/d/1"), Create("/e"), Attrib("/d/2"), Modify("/f"), Reindex("/d")});
  EXPECT_EQ((std::vector<std::string>{"[02] /e", "[02] /f", "[06] /d", "count=5"}), Deliver(*tree));
}

TEST(Delivery, MayBeRepeated) {
  const auto tree = TreeOf({Create("/a"), Rename("/a", "/b")});
  const std::vector<std::string> expected = {"[05] /a -> /b", "[02] /b", "count=3"};
  EXPECT_EQ(expected, Deliver(*tree));
  EXPECT_EQ(expected, Deliver(*tree));
}

TEST(Delivery, SkipsWhatTheConsumerCancelledMeanwhile) {
  const auto tree = TreeOf({Create("/a"), Create("/b"), Create("/c")});
  std::vector<std::string> delivered;
  const int count = tree->ProcessOP([&](const std::shared_ptr<OP>& op) {
    delivered.push_back(Print(op));
    tree->GetNodeByPath("/b")->ops[0]->op = OP_NONE;
  });
  EXPECT_EQ((std::vector<std::string>{"[02] /a", "[02] /c"}), delivered);
  EXPECT_EQ(3, count);
}

TEST(Delivery, AnExceptionOfTheConsumerEndsItAndComesOut) {
  const auto tree = TreeOf({Create("/a"), Create("/b"), Create("/c")});
  std::vector<std::string> delivered;
  const auto fail_at_second = [&](const std::shared_ptr<OP>& op) {
    delivered.push_back(Print(op));
    if (delivered.size() == 2) {
      throw std::runtime_error("full");
    }
  };
  EXPECT_THROW(tree->ProcessOP(fail_at_second), std::runtime_error);
  EXPECT_EQ((std::vector<std::string>{"[02] /a", "[02] /b"}), delivered);
  EXPECT_EQ(4U, Deliver(*tree).size()) << "nothing is lost for the next time";
}

TEST(Delivery, AConsumerMayInsertEvents) {
  const auto tree = TreeOf({Create("/a"), Create("/b"), Create("/c")});
  std::vector<std::string> delivered;
  const int count = tree->ProcessOP([&](const std::shared_ptr<OP>& op) {
    delivered.push_back(Print(op));
    if (op->node->name == "a") {
      for (int i = 0; i < 100; ++i) {
        Insert(*tree, Create("/new/" + std::to_string(i)));
      }
      Insert(*tree, Delete("/b"));
      Insert(*tree, Rename("/c", "/d"));
    }
  });
  ASSERT_EQ(104U, delivered.size());
  EXPECT_EQ("[01] /b", delivered[1]) << "later events show at once";
  EXPECT_EQ("[02] /new/0", delivered[2]);
  EXPECT_EQ("[02] /d", delivered.back());
  EXPECT_EQ(105, count);
}

TEST(Delivery, AnEmptyFunctionFailsWhenItIsFirstCalled) {
  EXPECT_EQ(0, EmptyTree()->ProcessOP(nullptr));
  EXPECT_THROW(TreeOf({Create("/a")})->ProcessOP(nullptr), std::bad_function_call);
}

TEST(Delivery, OfAnEmptyTreeIsNothing) {
  EXPECT_EQ(std::vector<std::string>{"count=0"}, Deliver(*EmptyTree()));
}

TEST(Ownership, AKeptOperationPrintsItsWholePathBeyondTheTree) {
  std::shared_ptr<OP> kept;
  {
    const auto tree = TreeOf({Create("/v/s/d/f"), Create("/v/s/d/g"), Rename("/v/s", "/v/t")});
    tree->ProcessOP([&](const std::shared_ptr<OP>& op) { kept = kept ? kept : op; });
  }
  EXPECT_EQ("[02] /v/t/d/f", Print(kept));
}

TEST(Ownership, ATreeFreesItsNodesAndOperations) {
  std::weak_ptr<OPNode> node;
  std::weak_ptr<OPNode> root;
  std::weak_ptr<OP> op;
  {
    const auto tree = TreeOf({Create("/a/b"), Rename("/a", "/c")});
    node = tree->GetNodeByPath("/a/b");
    root = tree->GetNodeByPath("/a")->parent;
    op = tree->GetNodeByPath("/c/b")->ops.at(0);
  }
  EXPECT_TRUE(node.expired());
  EXPECT_TRUE(root.expired());
  EXPECT_TRUE(op.expired());
}

TEST(Ownership, AKeptOperationFreesItsNodesWhenItGoes) {
  std::weak_ptr<OPNode> root;
  std::weak_ptr<OPNode> sibling;
  std::shared_ptr<OP> kept;
  {
    const auto tree = TreeOf({Create("/a/b"), Create("/a/c")});
    root = tree->GetNodeByPath("/a")->parent;
    sibling = tree->GetNodeByPath("/a/c");
    kept = tree->GetNodeByPath("/a/b")->ops.at(0);
  }
  EXPECT_TRUE(sibling.expired()) << "it keeps its path and not the tree";
  EXPECT_FALSE(root.expired());
  kept.reset();
  EXPECT_TRUE(root.expired());
}

// Runs `work` where a recursion over a hundred thousand levels cannot fit.
void OnSmallStack(const std::function<void()>& work) {
  constexpr size_t kStackBytes = size_t{1} << 20;
  pthread_attr_t attributes;
  ASSERT_EQ(0, pthread_attr_init(&attributes));
  ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, kStackBytes));
  pthread_t thread{};
  std::function<void()> copy = work;
  const auto run = [](void* function) -> void* {
    (*static_cast<std::function<void()>*>(function))();
    return nullptr;
  };
  ASSERT_EQ(0, pthread_create(&thread, &attributes, run, &copy));
  ASSERT_EQ(0, pthread_join(thread, nullptr));
  pthread_attr_destroy(&attributes);
}

constexpr size_t kLevels = 100'000;

std::string DeepPath(const std::string& top) {
  std::string path = top;
  for (size_t level = 1; level < kLevels; ++level) {
    path += "/d";
  }
  return path;
}

TEST(DeepTree, IsBuiltWalkedRenamedAndDestroyed) {
  OnSmallStack([] {
    const QueueFile queue(Join({Create(DeepPath("/a")), Rename("/a", "/b")}));
    OPTree tree(queue.path());
    size_t nodes = 0;
    tree.TraverseNodeDescendant(
        tree.GetNodeByPath("/a")->parent, [&](const std::shared_ptr<OPNode>&) { ++nodes; }, true);
    EXPECT_EQ(2 * kLevels, nodes);
    std::vector<std::string> delivered;
    EXPECT_EQ(2, tree.ProcessOP([&](const std::shared_ptr<OP>& op) { delivered.push_back(Print(op)); }));
    EXPECT_TRUE((delivered == std::vector<std::string>{"[02] " + DeepPath("/b"), "[05] /a -> /b"}));
  });
}

TEST(DeepTree, IsCarriedIntoItsOwnSubtree) {
  OnSmallStack([] {
    const auto tree = TreeOf({Create(DeepPath("/a")), Rename("/a", "/a/x")});
    std::string moved;
    tree->ProcessOP([&](const std::shared_ptr<OP>& op) { moved = op->op == OP_UPDATE ? Print(op) : moved; });
    EXPECT_TRUE(moved == "[02] " + DeepPath("/a/x/x")) << "carried twice: the walk comes to x after its older sibling";
  });
}

TEST(DeepTree, IsCancelledByAReindexAtItsTop) {
  OnSmallStack([] {
    EXPECT_EQ((std::vector<std::string>{"[06] /a", "count=2"}), Fold({Create(DeepPath("/a")), Reindex("/a")}));
  });
}

TEST(DeepTree, AKeptOperationAtItsEndIsReleased) {
  OnSmallStack([] {
    std::shared_ptr<OP> kept;
    TreeOf({Create(DeepPath("/a"))})->ProcessOP([&](const std::shared_ptr<OP>& op) { kept = op; });
    EXPECT_TRUE(Print(kept) == "[02] " + DeepPath("/a"));
    const std::weak_ptr<OPNode> node = kept->node;
    kept.reset();
    EXPECT_TRUE(node.expired());
  });
}

}  // namespace
}  // namespace orbisk::fileindex::test
