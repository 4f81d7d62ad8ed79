// Event lines and queue files for tests.
#include "tests/unit/fileindex/queue_lines.h"

#include <sstream>
#include <stdexcept>

#include "orbisk/error.h"
#include "orbisk/json.h"

namespace orbisk::fileindex::test {
namespace {

Json::Value Record(int mask, const std::string& path) {
  Json::Value record;
  record["event"] = mask;
  record["path"] = path;
  return record;
}

}  // namespace

std::string Line(int mask, const std::string& path, bool is_dir) {
  Json::Value record = Record(mask, path);
  record["is_dir"] = is_dir;
  return toString(record);
}

std::string Create(const std::string& path) {
  return Line(0x40, path);
}
std::string Modify(const std::string& path) {
  return Line(0x2, path);
}
std::string Attrib(const std::string& path) {
  return Line(0x4, path);
}
std::string Delete(const std::string& path) {
  return Line(0x80, path);
}
std::string CreateFolder(const std::string& path) {
  return Line(0x40, path, true);
}
std::string DeleteFolder(const std::string& path) {
  return Line(0x80, path, true);
}
std::string Reindex(const std::string& path) {
  return Line(0x10000, path);
}

std::string Switches(const std::string& path, const std::string& data, int more_bits) {
  Json::Value record = Record(0x20000 | more_bits, path);
  if (!fromString(record["data"], data)) {
    throw std::invalid_argument(data);
  }
  return toString(record);
}

std::string Rename(const std::string& from, const std::string& to, int more_bits) {
  Json::Value record = Record(0x100 | more_bits, to);
  record["path_old"] = from;
  return toString(record);
}

std::string Crash() {
  return Line(0x200, "/crashed");
}

std::string Join(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line + "\n";
  }
  return text;
}

QueueFile::QueueFile(const std::string& content) : path_(folder_ / "queue") {
  orbisk::test::WriteFile(path_, content);
}

std::unique_ptr<OPTree> EmptyTree() {
  return std::make_unique<OPTree>("/dev/null");
}

std::unique_ptr<OPTree> TreeOf(const std::vector<std::string>& lines) {
  std::unique_ptr<OPTree> tree = EmptyTree();
  for (const std::string& line : lines) {
    Insert(*tree, line);
  }
  return tree;
}

void Insert(OPTree& tree, const std::string& line) {
  tree.InsertEvent(std::make_shared<Event>(line));
}

std::string Print(const std::shared_ptr<OP>& op) {
  const std::string no_data = ", data=null";
  std::ostringstream stream;
  stream << op;
  std::string text = stream.str();
  if (text.size() >= no_data.size() && text.compare(text.size() - no_data.size(), no_data.size(), no_data) == 0) {
    text.resize(text.size() - no_data.size());
  }
  return text;
}

std::vector<std::string> Deliver(OPTree& tree) {
  std::vector<std::string> delivered;
  const int count = tree.ProcessOP([&](const std::shared_ptr<OP>& op) { delivered.push_back(Print(op)); });
  delivered.push_back("count=" + std::to_string(count));
  return delivered;
}

std::vector<std::string> Fold(const std::vector<std::string>& lines) {
  return Deliver(*TreeOf(lines));
}

std::vector<std::string> Places(OPTree& tree) {
  std::shared_ptr<OPNode> root = tree.GetNodeByPath("/crashed");
  root = root->parent;
  std::vector<std::string> paths;
  tree.TraverseNodeDescendant(
      root, [&](const std::shared_ptr<OPNode>& node) { paths.push_back(node->GetPath()); }, true);
  std::erase(paths, "/crashed");
  return paths;
}

}  // namespace orbisk::fileindex::test
