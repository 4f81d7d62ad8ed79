// The registrations on disk: which folders' changes go to which queue file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nimotifyd {

/// One watched folder of a registration.
struct WatchEntry {
  std::string path;                 ///< absolute, no slash at the end ("/" itself stays)
  uint32_t mask = 0;                ///< event bits that are written
  std::vector<std::string> ignore;  ///< names skipped at any depth, with what is below them
  bool operator==(const WatchEntry&) const = default;
};

struct Registration {
  std::string app;
  std::string queue;  ///< absolute path of the queue file
  std::vector<WatchEntry> entries;
  bool operator==(const Registration&) const = default;
};

/// Reads the text of one registration file; nothing if it is malformed: also if a path is not absolute, has an empty,
/// "." or ".." component, or is a queue's and ends in a slash.
std::optional<Registration> ParseRegistration(std::string_view text);

/// Reads every "*.json" below `folder`, in the order of their names. Malformed files are left out with a record.
/// A missing folder holds none.
std::vector<Registration> LoadRegistrations(const std::string& folder);

}  // namespace nimotifyd
