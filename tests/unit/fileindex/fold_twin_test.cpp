// The operation tree against its naive twin, on random events.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

#include "orbisk/error.h"
#include "orbisk/fileindex/optree.h"
#include "orbisk/json.h"
#include "tests/unit/fileindex/naive_fold.h"

namespace orbisk::fileindex::test {
namespace {

class EventSource {
 public:
  explicit EventSource(unsigned seed) : random_(seed) {}

  size_t Below(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random_); }

  // Few names, so that events meet; sometimes many siblings, so that the hash is used.
  std::string Path() {
    static const std::vector<std::string> kNames = {"a", "b", "c"};
    std::string path;
    for (size_t depth = 1 + Below(4); depth > 0; --depth) {
      path += "/" + (Below(30) == 0 ? "n" + std::to_string(Below(60)) : kNames[Below(kNames.size())]);
    }
    return Below(40) == 0 ? Spoil(path) : path;
  }

  std::string Line() {
    if (Below(25) == 0) {
      return BadLine();
    }
    Json::Value event;
    event["event"] = Mask();
    event["is_dir"] = Below(4) == 0;
    event["path"] = Path();
    if ((event["event"].asInt() & EVENT_RENAME) != 0 || Below(20) == 0) {
      event["path_old"] = OldPath(event["path"].asString());
    }
    if ((event["event"].asInt() & EVENT_UPDATE_DIRECTORY) != 0) {
      event["data"] = Data();
    }
    return toString(event);
  }

 private:
  // Renames between a folder and its own ancestor are rare: they multiply the nodes.
  std::string OldPath(const std::string& path) {
    const auto nested = [](const std::string& upper, const std::string& lower) {
      return (lower + "/").compare(0, upper.size() + 1, upper + "/") == 0;
    };
    std::string old_path = Path();
    while ((nested(path, old_path) || nested(old_path, path)) && Below(10) != 0) {
      old_path = Path();
    }
    return old_path;
  }

  std::string Spoil(const std::string& path) {
    const std::vector<std::string> spoiled = {path + "/", path.substr(1), "/" + path, "", "/", "/a//b"};
    return spoiled[Below(spoiled.size())];
  }

  std::string BadLine() {
    const std::vector<std::string> bad = {"",
                                          "{",
                                          "null",
                                          R"({"event":64})",
                                          R"({"event":64,"path":"/a"} x)",
                                          "[]",
                                          "{}\r",
                                          R"({"event":99999999999,"path":"/a"})"};
    return bad[Below(bad.size())];
  }

  int Mask() {
    static const std::vector<int> kBits = {0x2, 0x4, 0x40, 0x80, 0x100, 0x100, 0x100, 0x10000, 0x20000, 0x40, 0x2};
    int mask = kBits[Below(kBits.size())];
    while (Below(6) == 0) {
      mask |= kBits[Below(kBits.size())];
    }
    return Below(300) == 0 ? mask | EVENT_QUEUE_CRASHED : mask;
  }

  Json::Value Data() {
    const std::vector<std::string> data = {
        "null", R"({"audio":true})", R"({"video":1,"x":7})", R"({"photo":""})", R"({"document":true,"y":2})", "[1]",
        "5"};
    Json::Value value;
    fromString(value, data[Below(data.size())]);
    return value;
  }

  std::mt19937 random_;
};

std::vector<std::string> Deliver(OPTree& tree) {
  std::vector<std::string> lines;
  const int count = tree.ProcessOP([&](std::shared_ptr<OP> op) {
    std::ostringstream line;
    line << op;
    lines.push_back(line.str());
  });
  lines.push_back("count=" + std::to_string(count));
  return lines;
}

std::vector<std::string> Nodes(OPTree& tree) {
  std::shared_ptr<OPNode> root = tree.GetNodeByPath("/a")->parent;
  std::vector<std::string> nodes;
  tree.TraverseNodeDescendant(
      root,
      [&](std::shared_ptr<OPNode> node) {
        std::ostringstream text;
        text << node->GetPath();
        for (const auto& op : node->ops) {
          text << "\n  " << op;
        }
        nodes.push_back(text.str());
      },
      true);
  return nodes;
}

class FoldTwin : public testing::Test {
 protected:
  FoldTwin() {
    char name[] = "/tmp/fold_twin_XXXXXX";
    close(mkstemp(name));
    path_ = name;
  }
  ~FoldTwin() override { unlink(path_.c_str()); }

  // Folds up to `events` random lines both ways. Renames of a folder into itself multiply its nodes, each time anew, so
  // a sequence ends early when there are many.
  void Compare(unsigned seed, size_t events) {
    constexpr size_t kManyNodes = 400;
    EventSource source(seed);
    NaiveFold twin;
    std::ofstream file(path_, std::ios::trunc);
    for (size_t i = 0; i < events && !twin.crashed() && twin.CountNodes() < kManyNodes; ++i) {
      const std::string line = source.Line();
      file << line << "\n";
      try {
        twin.Insert(Event(line));
      } catch (const Error&) {  // a bad line; the tree skips it too
      }
    }
    file.close();
    OPTree tree(path_);

    ASSERT_EQ(twin.Deliver(), Deliver(tree)) << "seed " << seed;
    twin.Insert(Event(R"({"event":0,"path":"/a"})"));
    ASSERT_EQ(twin.Nodes(), Nodes(tree)) << "seed " << seed;
  }

  std::string path_;
};

// A sanitizer makes it ten times slower, and finds what it can find in fewer sequences.
#ifndef ORBISK_FOLD_TWIN_SHARE
#define ORBISK_FOLD_TWIN_SHARE 1
#endif
constexpr unsigned kShortSequences = 20'000 / ORBISK_FOLD_TWIN_SHARE;
constexpr unsigned kLongSequences = 300 / ORBISK_FOLD_TWIN_SHARE;

TEST_F(FoldTwin, ShortSequencesFoldAlike) {
  for (unsigned seed = 0; seed < kShortSequences; ++seed) {
    ASSERT_NO_FATAL_FAILURE(Compare(seed, 1 + seed % 24));
  }
}

TEST_F(FoldTwin, LongSequencesFoldAlike) {
  for (unsigned seed = 0; seed < kLongSequences; ++seed) {
    ASSERT_NO_FATAL_FAILURE(Compare(1'000'000 + seed, 600));
  }
}

}  // namespace
}  // namespace orbisk::fileindex::test
