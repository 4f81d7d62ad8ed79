// The rule.
#include "services/indexer/settle.h"

#include <algorithm>

namespace fileindexd {

void Settle::Note(Time now) {
  const bool after_quiet = !last_ || now - *last_ >= quiet_;
  last_ = now;
  if (!due_) {
    first_ = now;
    due_ = after_quiet ? now : now + quiet_;
  } else if (*due_ > now) {
    due_ = std::min<Time>(now + quiet_, first_ + longest_);
  }
}

}  // namespace fileindexd
