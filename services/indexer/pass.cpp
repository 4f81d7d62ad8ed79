// The order in which a batch is applied.
#include "services/indexer/pass.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "orbisk/fileindex/optree.h"

namespace fileindexd {

namespace fi = orbisk::fileindex;

namespace {

constexpr size_t kPortion = 256;

// Says which paths come before each portion of many items; a single one has nobody to share a question with.
template <class Items, class PathOf, class Expect, class Work>
void InPortions(const Items& items, PathOf path_of, Expect expect, Work work) {
  for (size_t i = 0; i < items.size(); ++i) {
    if (i % kPortion == 0 && i + 1 < items.size()) {
      std::vector<std::string> paths;
      for (size_t next = i; next < std::min(i + kPortion, items.size()); ++next) {
        paths.push_back(path_of(items[next]));
      }
      expect(std::move(paths));
    }
    work(items[i]);
  }
}

}  // namespace

void Pass::Take(const fi::OP& operation) {
  std::string path = operation.node->GetPath();
  switch (operation.op) {
    case fi::OP_DELETE:
    case fi::OP_UPDATE:
      singles_.push_back({std::move(path)});
      break;
    case fi::OP_ATTR:
      singles_.push_back({std::move(path), true});
      break;
    case fi::OP_RENAME:
      trees_.push_back(operation.path);
      trees_.push_back(path);
      renames_.emplace_back(operation.path, std::move(path));
      break;
    case fi::OP_UPDATE_DIRECTORY:
    case fi::OP_REINDEX:
      TakeTree(std::move(path));
      break;
    case fi::OP_QUEUE_CRASHED:
      events_lost_ = true;
      doubt_ = true;
      break;
    case fi::OP_NONE:
      break;
  }
}

void Pass::PutOffRecovery() {
  events_lost_ = false;
  doubt_ = true;
}

void Pass::Apply(Reconciler& reconciler, Progress& progress, bool again) {
  if (events_lost_) {
    trees_.push_back(share_folder_);
  }
  ReduceTrees();
  progress.AddWork(renames_.size() + singles_.size() + anew_.size());
  reconciler.remember_reads = !trees_.empty();
  const auto expect = [&reconciler](std::vector<std::string> paths) { reconciler.Expect(paths); };
  InPortions(
      renames_, [](const auto& rename) { return rename.first; }, expect,
      [&](const auto& rename) {
        progress.BeginFile(rename.second);
        const std::uint64_t before = reconciler.changes();
        reconciler.Move(rename.first, rename.second);
        progress.EndFile(rename.second, reconciler.changes() != before);
      });
  InPortions(
      singles_, [](const Single& single) { return single.path; }, expect,
      [&](const Single& single) {
        single.attributes ? reconciler.UpdateAttributes(single.path, doubt_) : reconciler.Update(single.path, again);
      });
  InPortions(
      anew_, [](const std::string& path) { return path; }, expect,
      [&](const std::string& path) { reconciler.Update(path, false); });
  InPortions(
      trees_, [](const std::string& tree) { return tree; }, expect,
      [&](const std::string& tree) {
        if (tree == share_folder_) {
          // What asked for this may have come in the place of a rename of the share.
          reconciler.RemoveOutside(tree);
        }
        reconciler.Tree(tree);
      });
  reconciler.Finish();
}

// A tree within another one is looked through with it.
void Pass::ReduceTrees() {
  std::sort(trees_.begin(), trees_.end());
  std::vector<std::string> outer;
  for (std::string& tree : trees_) {
    // Sorted by bytes, so "/a!" stands between "/a" and "/a/b": each path above has to be looked for.
    std::string above = tree;
    bool inside = false;
    while (!above.empty() && !inside) {
      inside = std::binary_search(outer.begin(), outer.end(), above);
      above.resize(above.rfind('/') == std::string::npos ? 0 : above.rfind('/'));
    }
    if (!inside) {
      outer.push_back(std::move(tree));
    }
  }
  trees_ = std::move(outer);
}

}  // namespace fileindexd
