// The rule.
#include "services/indexer/recovery_pace.h"

#include <algorithm>

namespace fileindexd {
namespace {

constexpr int kMostDoublings = 10;

}  // namespace

std::optional<RecoveryPace::Time> RecoveryPace::Due(Time now) const {
  return ended_ && now < *ended_ + wait_ ? std::optional(*ended_ + wait_) : std::nullopt;
}

void RecoveryPace::NoteRecovery(Time begun, Time ended) {
  const bool recurs = ended_ && begun < *ended_ + 2 * wait_;
  recurrences_ = recurs ? std::min(recurrences_ + 1, kMostDoublings) : 0;
  const Duration growing = (ended - begun) * (1 << recurrences_);
  wait_ = std::min(most_, std::max(least_, growing));
  ended_ = ended;
}

}  // namespace fileindexd
