// How the reading of a content ended, as the daemon sees it.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>
#include <string_view>

namespace extractor {

struct Outcome {
  enum class Kind {
    kRead,      ///< `fields` and `text` are there
    kBroken,    ///< the content is broken; no failure
    kDied,      ///< the worker died of it
    kDeadline,  ///< it took too long
    kMemory,    ///< it took too much memory
    kRefused,   ///< it made the worker do what no reader does
    kKilled,    ///< somebody else ended the worker, so the content is not to blame
    kNoWorker   ///< there is no worker to be had
  };

  Kind kind = Kind::kDied;
  Json::Value fields{Json::objectValue};
  std::string text;
  bool cut = false;
  std::string message;  ///< for people; empty when it was read
};

/// A word for the status: "broken", "deadline" and so on.
const char* NameOf(Outcome::Kind kind);

/// The kind with that name; nothing if there is none.
std::optional<Outcome::Kind> KindNamed(std::string_view name);

/// Whether the content is to blame, so that reading it again while it is the same would end the same.
bool IsContentsFault(Outcome::Kind kind);

/// What a worker died of, from the status that wait(2) gives.
Outcome OutcomeOfDeath(int status);

}  // namespace extractor
