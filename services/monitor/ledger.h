// What the lines written say about names for which the kernel's events are not conclusive.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "services/monitor/handle.h"

namespace nimotifyd {

/// The kernel merges an event into an equal one that is still queued, however many others lie between: a file that is
/// renamed forth, back and forth again shows as renamed forth and back. And a delete merged with a create of one name
/// tells no order. So names that were renamed from or to, or both created and deleted in one event, are entered here
/// with what the lines say is there, and compared with the disk when the kernel's queue has been emptied.
///
/// A name is kept by its folder's handle, because folders are renamed as well.
///
/// Threads: one.
class Ledger {
 public:
  struct Name {
    Handle folder;
    std::string name;
    bool operator==(const Name&) const = default;
  };
  struct State {
    std::optional<Handle> object;  ///< nothing: no such object
    bool is_dir = false;           ///< of the object, or of the last one there
  };

  /// From now on the name is compared.
  void Enter(const Handle& folder, std::string_view name, const State& state) {
    names_[{folder, std::string(name)}] = state;
  }

  /// Keeps a name that has been entered right.
  void Update(const Handle& folder, std::string_view name, const State& state) {
    if (State* known = Find(folder, name)) {
      *known = state;
    }
  }

  State* Find(const Handle& folder, std::string_view name) {
    if (names_.empty()) {
      return nullptr;
    }
    const auto at = names_.find({folder, std::string(name)});
    return at == names_.end() ? nullptr : &at->second;
  }

  /// Drops the names for which `matches` holds.
  void DropIf(const std::function<bool(const Name&, const State&)>& matches) {
    std::erase_if(names_, [&](const auto& item) { return matches(item.first, item.second); });
  }

  /// Takes all names out.
  auto TakeAll() { return std::exchange(names_, {}); }

  void Clear() { names_.clear(); }
  size_t size() const { return names_.size(); }

 private:
  struct NameHash {
    size_t operator()(const Name& name) const {
      return HandleHash()(name.folder) ^ std::hash<std::string>()(name.name);
    }
  };
  std::unordered_map<Name, State, NameHash> names_;
};

}  // namespace nimotifyd
