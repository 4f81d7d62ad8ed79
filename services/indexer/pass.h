// One batch of operations, applied to the index.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "orbisk/fileindex/op.h"
#include "services/indexer/reconciler.h"

namespace fileindexd {

/// Takes the operations of one batch and applies them all at the end.
///
/// Renames come first: what was filed on something below a folder that is renamed later is delivered before the rename,
/// under the path that it gets by it. Then the single files, then the trees: those that were asked for, and both sides
/// of each rename.
///
/// Threads: one.
class Pass {
 public:
  /// `share_folder` is looked through when the queue has crashed.
  explicit Pass(std::string share_folder) : share_folder_(std::move(share_folder)) {}

  void Take(const orbisk::fileindex::OP& operation);
  /// Has the tree at `path` compared too.
  void TakeTree(std::string path) {
    doubt_ = true;
    trees_.push_back(std::move(path));
  }

  /// Has the content of `path` read whatever its document looks like.
  void TakeAnew(std::string path) { anew_.push_back(std::move(path)); }

  /// Whether the queue says that events were lost, so that the whole share has to be compared.
  bool EventsLost() const { return events_lost_; }
  /// Makes that comparison, whether the queue says so or one was put off before.
  void Recover() { events_lost_ = doubt_ = true; }
  /// Leaves it to a later pass, and doubts.
  void PutOffRecovery();

  /// Applies what was taken. `again`: the batch was begun before, so what looks current was read then.
  void Apply(Reconciler& reconciler, Progress& progress, bool again);

 private:
  struct Single {
    std::string path;
    bool attributes = false;  // alone
  };

  void ReduceTrees();

  std::string share_folder_;
  bool doubt_ = false;  // that a change of attributes was all that happened
  bool events_lost_ = false;
  std::vector<std::pair<std::string, std::string>> renames_;  // from, to
  std::vector<Single> singles_;
  std::vector<std::string> anew_;
  std::vector<std::string> trees_;
};

}  // namespace fileindexd
