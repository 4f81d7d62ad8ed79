// What a worker's end says about the content it read.
#include "services/extractor/outcome.h"

#include <gtest/gtest.h>
#include <signal.h>

namespace extractor {
namespace {

constexpr int Exited(int status) {
  return status << 8;
}

TEST(OutcomeOfDeath, TellsWhoIsToBlame) {
  const std::pair<int, Outcome::Kind> cases[] = {
      {SIGSEGV, Outcome::Kind::kDied},   {SIGABRT, Outcome::Kind::kDied},   {SIGBUS, Outcome::Kind::kDied},
      {SIGSYS, Outcome::Kind::kRefused}, {SIGKILL, Outcome::Kind::kKilled}, {SIGTERM, Outcome::Kind::kKilled},
      {Exited(0), Outcome::Kind::kDied}, {Exited(1), Outcome::Kind::kDied}, {Exited(3), Outcome::Kind::kNoWorker}};
  for (const auto& [status, kind] : cases) {
    const Outcome outcome = OutcomeOfDeath(status);
    EXPECT_EQ(outcome.kind, kind) << status;
    EXPECT_FALSE(outcome.message.empty()) << status;
  }
}

TEST(OutcomeKind, BlamesTheContentOnlyForWhatItDid) {
  EXPECT_TRUE(IsContentsFault(Outcome::Kind::kDied));
  EXPECT_TRUE(IsContentsFault(Outcome::Kind::kDeadline));
  EXPECT_TRUE(IsContentsFault(Outcome::Kind::kMemory));
  EXPECT_TRUE(IsContentsFault(Outcome::Kind::kRefused));
  EXPECT_FALSE(IsContentsFault(Outcome::Kind::kRead));
  EXPECT_FALSE(IsContentsFault(Outcome::Kind::kBroken));
  EXPECT_FALSE(IsContentsFault(Outcome::Kind::kKilled));
  EXPECT_FALSE(IsContentsFault(Outcome::Kind::kNoWorker));
}

}  // namespace
}  // namespace extractor
