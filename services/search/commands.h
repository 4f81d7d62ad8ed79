// What the daemon can be asked, command by command.
#pragma once

#include <cstddef>
#include <string>

#include "services/search/catalog.h"
#include "services/search/request.h"

namespace nimoelasticd {

/// How a command goes with others.
enum class Traffic {
  kReading,   ///< at any time
  kQuestion,  ///< likewise, on a reader's connection; the index has to be open
  kOrdered,   ///< after what came before for the same index
  kDocument,  ///< likewise; refused at once while the index is being opened, moved or repaired
};

/// What is to be known of a command before it is run.
struct Route {
  Traffic traffic = Traffic::kReading;
  std::string index;  ///< the id that decides about the order; "" where there is none
};

/// Runs commands. Threads: any.
class Commands {
 public:
  /// A result of more than `max_answer_bytes` is refused.
  explicit Commands(Catalog& catalog, size_t max_answer_bytes = kMaxMessageBytes)
      : catalog_(catalog), max_answer_bytes_(max_answer_bytes) {}

  /// Throws Refusal kUnknownCommand, kBadMember.
  static Route RouteOf(const Command& command);

  /// Does what can be done of a command before its turn, side by side with others. Throws std::bad_alloc.
  void Prepare(Command& command);

  /// Returns the result, a JSON text, or "" if the command has none. Throws Refusal, search::Error, std::exception.
  std::string Run(Command& command);

 private:
  Catalog& catalog_;
  const size_t max_answer_bytes_;
};

}  // namespace nimoelasticd
