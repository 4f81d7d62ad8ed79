// The naive fold.
#include "tests/unit/fileindex/naive_fold.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <sstream>

#include "orbisk/json.h"

namespace orbisk::fileindex::test {
namespace {

std::string PathOf(const NaiveNode* node) {
  return node->parent == nullptr ? node->name : PathOf(node->parent) + "/" + node->name;
}

NaiveNode* ChildOf(NaiveNode* node, const std::string& name) {
  for (const auto& child : node->children) {
    if (child->name == name) {
      return child.get();
    }
  }
  node->children.push_back(std::make_unique<NaiveNode>());
  node->children.back()->name = name;
  node->children.back()->parent = node;
  return node->children.back().get();
}

using Visitor = std::function<void(NaiveNode*)>;

void Walk(
    NaiveNode* node, const Visitor& visit, bool exclude_self,
    const std::function<bool(NaiveNode*)>& enter = [](NaiveNode*) { return true; }) {
  std::vector<NaiveNode*> children;
  for (const auto& child : node->children) {
    children.push_back(child.get());
  }
  for (NaiveNode* child : children) {
    if (enter(child)) {
      Walk(child, visit, false, enter);
    }
  }
  if (!exclude_self) {
    visit(node);
  }
}

void ForEachLive(NaiveNode* node, const std::function<void(NaiveOp*)>& visit) {
  const std::vector<NaiveOp*> copy = node->ops;
  for (NaiveOp* op : copy) {
    if (op->kind != 0) {
      visit(op);
    }
  }
}

void Move(NaiveOp* op, NaiveNode* from, NaiveNode* to) {
  op->node = to;
  to->ops.push_back(op);
  from->ops.erase(std::find(from->ops.begin(), from->ops.end(), op));
}

bool Merge(Json::Value& data, const Json::Value& incoming) {
  if (!incoming.isObject()) {
    return false;
  }
  const std::vector<std::string> keys = {"document", "audio", "video", "photo", "basic"};
  std::vector<bool> flags;
  for (const std::string& key : keys) {
    flags.push_back(incoming.isMember(key) && incoming[key].isConvertibleTo(Json::booleanValue) &&
                    incoming[key].asBool());
  }
  if (!data.isObject()) {
    data = Json::Value(Json::objectValue);
  }
  for (size_t i = 0; i < keys.size(); ++i) {
    const bool current = data.isMember(keys[i]) && data[keys[i]].isBool() && data[keys[i]].asBool();
    data[keys[i]] = flags[i] || current;
  }
  return true;
}

std::string Print(const NaiveOp& op) {
  char kind[16];
  snprintf(kind, sizeof(kind), "[%02d] ", op.kind);
  return kind + (op.kind == OP_RENAME ? op.path + " -> " : "") + PathOf(op.node) + ", data=" + toString(op.data);
}

// The columns of the rule table, one letter for each kind of pending operation from 1 to 7:
// k keep, x drop, 1 2 4 6 become, m merge.
constexpr char kCreate[] = "2x2xkxk";
constexpr char kModify[] = "xx2xkxk";
constexpr char kAttr[] = "xxxxkxk";
constexpr char kDelete[] = "x11kkkk";
constexpr char kUpdateDirectory[] = "x44mkxk";
constexpr char kReindex[] = "x666kxk";

bool Visit(NaiveNode* node, NaiveOp* op, const char* column) {
  bool good = true;
  ForEachLive(node, [&](NaiveOp* existing) {
    const char rule = column[existing->kind - 1];
    if (!good || rule == 'k') {
      return;
    }
    if (rule == 'm') {
      good = Merge(existing->data, Json::Value(op->data));
    } else if (rule != 'x') {
      existing->kind = rule - '0';
      if (rule == '4') {
        existing->data = op->data;
      }
    }
    if (good) {
      op->kind = 0;
    }
  });
  return good;
}

}  // namespace

NaiveNode* NaiveFold::Lookup(const std::string& path) {
  NaiveNode* node = &root_;
  std::stringstream stream(path);
  for (std::string segment; std::getline(stream, segment, '/');) {
    if (segment.empty()) {
      continue;
    }
    node = ChildOf(node, segment);
    if (PathOf(node) == path) {
      return node;
    }
  }
  return nullptr;
}

void NaiveFold::File(NaiveNode* node, NaiveOp* op) {
  list_.push_back(op);
  node->ops.push_back(op);
}

bool NaiveFold::HandleSimple(NaiveNode* node, NaiveOp* op, int kind, const char* column) {
  op->kind = kind;
  if (!Visit(node, op, column)) {
    return false;
  }
  if (op->kind != 0) {
    File(node, op);
  }
  return true;
}

bool NaiveFold::HandleReindex(NaiveNode* node, NaiveOp* op) {
  op->kind = OP_REINDEX;
  Visit(node, op, kReindex);
  Walk(
      node,
      [](NaiveNode* below) {
        ForEachLive(below, [](NaiveOp* existing) {
          if (existing->kind != OP_RENAME) {
            existing->kind = 0;
          }
        });
      },
      true);
  if (op->kind != 0) {
    File(node, op);
  }
  return true;
}

bool NaiveFold::HandleRename(NaiveNode* node, NaiveOp* op) {
  const std::string old_path = op->path;
  const std::string new_path = PathOf(node);
  NaiveNode* old_node = Lookup(old_path);
  if (old_node == nullptr) {
    return false;
  }
  owned_.push_back(std::make_unique<NaiveOp>(NaiveOp{node, 0, "", Json::Value()}));
  NaiveOp* follow_up = owned_.back().get();
  op->kind = OP_RENAME;
  ForEachLive(node, [](NaiveOp* existing) {
    if (existing->kind >= 1 && existing->kind <= 3) {
      existing->kind = 0;
    }
  });
  ForEachLive(old_node, [&](NaiveOp* existing) {
    if (existing->kind == 2 || existing->kind == 3 || existing->kind == 6) {
      follow_up->kind = existing->kind;
      existing->kind = 0;
    }
    Move(existing, old_node, node);
  });
  std::set<NaiveNode*> there_before;
  Walk(
      &root_, [&](NaiveNode* below) { there_before.insert(below); }, true);
  size_t own_places_left = std::max<size_t>(1'000, there_before.size());
  Walk(
      old_node,
      [&](NaiveNode* below) {
        NaiveNode* target = Lookup(new_path + PathOf(below).substr(old_path.size()));
        ForEachLive(below, [&](NaiveOp* existing) {
          if (existing->kind >= 2) {
            Move(existing, below, target);
          }
        });
      },
      true,
      [&](NaiveNode* below) {
        return there_before.count(below) != 0 || (own_places_left > 0 && own_places_left-- > 0);
      });
  File(node, op);
  if (follow_up->kind != 0) {
    File(node, follow_up);
  }
  return true;
}

bool NaiveFold::Insert(const Event& event) {
  NaiveNode* node = Lookup(event.path);
  if (node == nullptr) {
    return false;
  }
  owned_.push_back(std::make_unique<NaiveOp>(NaiveOp{node, 0, "", Json::Value()}));
  NaiveOp* op = owned_.back().get();
  const int mask = event.event;
  bool good = true;
  if ((mask & 0x40) != 0) {
    good = event.is_dir ? HandleReindex(node, op) : HandleSimple(node, op, 2, kCreate);
  }
  if (good && (mask & 0x4) != 0) {
    good = HandleSimple(node, op, 3, kAttr);
  }
  if (good && (mask & 0x2) != 0) {
    good = HandleSimple(node, op, 2, kModify);
  }
  if (good && (mask & 0x80) != 0) {
    good = event.is_dir ? HandleReindex(node, op) : HandleSimple(node, op, 1, kDelete);
  }
  if (good && (mask & 0x100) != 0) {
    op->path = event.path_old;
    good = HandleRename(node, op);
  }
  if (good && (mask & 0x10000) != 0) {
    good = HandleReindex(node, op);
  }
  if (good && (mask & 0x20000) != 0) {
    op->data = event.data;
    good = HandleSimple(node, op, 4, kUpdateDirectory);
  }
  if (good && (mask & 0x200) != 0) {
    crashed_ = true;
  }
  return good;
}

size_t NaiveFold::CountNodes() const {
  size_t count = 0;
  Walk(
      const_cast<NaiveNode*>(&root_), [&](NaiveNode*) { ++count; }, true);
  return count;
}

std::vector<std::string> NaiveFold::Deliver() const {
  std::vector<std::string> lines;
  if (crashed_) {
    return {"[07] , data=null", "count=1"};
  }
  for (const NaiveOp* op : list_) {
    if (op->kind != 0) {
      lines.push_back(Print(*op));
    }
  }
  lines.push_back("count=" + std::to_string(list_.size()));
  return lines;
}

std::vector<std::string> NaiveFold::Nodes() const {
  std::vector<std::string> nodes;
  Walk(
      const_cast<NaiveNode*>(&root_),
      [&](NaiveNode* node) {
        std::string text = PathOf(node);
        for (const NaiveOp* op : node->ops) {
          text += "\n  " + Print(*op);
        }
        nodes.push_back(text);
      },
      true);
  return nodes;
}

}  // namespace orbisk::fileindex::test
