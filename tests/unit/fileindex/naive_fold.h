// The fold as its rules are told, with nothing done for speed: the twin that the operation tree is compared with.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "orbisk/fileindex/op.h"

namespace orbisk::fileindex::test {

/// A place in the naive tree; owned by its parent.
struct NaiveNode;

struct NaiveOp {
  NaiveNode* node;
  int kind = 0;
  std::string path;
  Json::Value data;
};

struct NaiveNode {
  std::string name;
  NaiveNode* parent = nullptr;
  std::vector<std::unique_ptr<NaiveNode>> children;
  std::vector<NaiveOp*> ops;
};

class NaiveFold {
 public:
  /// False where the tree throws. What was filed before stays.
  bool Insert(const Event& event);
  /// The delivered operations in their printed form, then "count=N".
  std::vector<std::string> Deliver() const;
  /// Every node but the root, children before parents, each as its path and its operations, cancelled ones included.
  std::vector<std::string> Nodes() const;
  bool crashed() const { return crashed_; }
  size_t CountNodes() const;

 private:
  NaiveNode* Lookup(const std::string& path);
  void File(NaiveNode* node, NaiveOp* op);
  bool HandleSimple(NaiveNode* node, NaiveOp* op, int kind, const char* column);
  bool HandleReindex(NaiveNode* node, NaiveOp* op);
  bool HandleRename(NaiveNode* node, NaiveOp* op);

  NaiveNode root_;
  std::vector<std::unique_ptr<NaiveOp>> owned_;
  std::vector<NaiveOp*> list_;
  bool crashed_ = false;
};

}  // namespace orbisk::fileindex::test
