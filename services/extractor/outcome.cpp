// Names and interprets ends.
#include "services/extractor/outcome.h"

#include <signal.h>
#include <string.h>
#include <sys/wait.h>

#include "services/extractor/worker_main.h"

namespace extractor {

const char* NameOf(Outcome::Kind kind) {
  switch (kind) {
    case Outcome::Kind::kRead:
      return "read";
    case Outcome::Kind::kBroken:
      return "broken";
    case Outcome::Kind::kDied:
      return "died";
    case Outcome::Kind::kDeadline:
      return "deadline";
    case Outcome::Kind::kMemory:
      return "memory";
    case Outcome::Kind::kRefused:
      return "refused";
    case Outcome::Kind::kKilled:
      return "killed";
    case Outcome::Kind::kNoWorker:
      return "no_worker";
  }
  return "unknown";
}

std::optional<Outcome::Kind> KindNamed(std::string_view name) {
  for (const Outcome::Kind kind :
       {Outcome::Kind::kRead, Outcome::Kind::kBroken, Outcome::Kind::kDied, Outcome::Kind::kDeadline,
        Outcome::Kind::kMemory, Outcome::Kind::kRefused, Outcome::Kind::kKilled, Outcome::Kind::kNoWorker}) {
    if (name == NameOf(kind)) {
      return kind;
    }
  }
  return std::nullopt;
}

bool IsContentsFault(Outcome::Kind kind) {
  return kind == Outcome::Kind::kDied || kind == Outcome::Kind::kDeadline || kind == Outcome::Kind::kMemory ||
         kind == Outcome::Kind::kRefused;
}

Outcome OutcomeOfDeath(int status) {
  Outcome outcome;
  if (WIFEXITED(status)) {
    const bool no_sandbox = WEXITSTATUS(status) == kWorkerNoSandbox;
    outcome.kind = no_sandbox ? Outcome::Kind::kNoWorker : Outcome::Kind::kDied;
    outcome.message = no_sandbox ? "the kernel refuses the sandbox of the worker"
                                 : "the worker exited with status " + std::to_string(WEXITSTATUS(status));
    return outcome;
  }
  const int signal = WTERMSIG(status);
  if (signal == SIGKILL || signal == SIGTERM) {
    outcome.kind = Outcome::Kind::kKilled;
    outcome.message = "somebody ended the worker";
  } else if (signal == SIGSYS) {
    outcome.kind = Outcome::Kind::kRefused;
    outcome.message = "the worker did what it may not";
  } else {
    outcome.kind = Outcome::Kind::kDied;
    outcome.message = std::string("the worker died: ") + strsignal(signal);
  }
  return outcome;
}

}  // namespace extractor
