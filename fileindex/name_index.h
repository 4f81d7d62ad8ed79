// Finds one of many children by name.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string_view>
#include <vector>

namespace orbisk::fileindex {

/// A hash table from names to positions in a list that only grows. The names stay where they are, with the caller.
///
/// Holds nothing but a part of the hash and the position, eight bytes together, so that looking a name up among a
/// million costs one cache miss here and one at the name, and growing costs none at the names. A node-based table costs
/// three times the time and five times the memory.
class NameIndex {
 public:
  static constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

  size_t size() const { return size_; }

  void Clear() {
    slots_.clear();
    size_ = 0;
  }

  /// Adds the name at position size(). It must not be in the table yet.
  void Append(std::string_view name) {
    if (slots_.size() < 2 * (size_ + 1)) {
      Grow();
    }
    Place({HashOf(name), static_cast<std::uint32_t>(size_)});
    ++size_;
  }

  /// The position of `name`, kNone if it is not there. `name_at(position)` gives the name at a position.
  template <typename NameAt>
  std::uint32_t Find(std::string_view name, NameAt name_at) const {
    if (slots_.empty()) {
      return kNone;
    }
    const std::uint32_t hash = HashOf(name);
    for (size_t i = hash & (slots_.size() - 1); slots_[i].position != kNone; i = (i + 1) & (slots_.size() - 1)) {
      if (slots_[i].hash == hash && name_at(slots_[i].position) == name) {
        return slots_[i].position;
      }
    }
    return kNone;
  }

 private:
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t position = kNone;
  };

  static std::uint32_t HashOf(std::string_view name) {
    const std::uint64_t hash = std::hash<std::string_view>()(name);
    return static_cast<std::uint32_t>(hash ^ (hash >> 32));
  }

  void Place(Slot slot) {
    size_t i = slot.hash & (slots_.size() - 1);
    while (slots_[i].position != kNone) {
      i = (i + 1) & (slots_.size() - 1);
    }
    slots_[i] = slot;
  }

  void Grow() {
    constexpr size_t kFirstSize = 64;  // always a power of two
    std::vector<Slot> old(slots_.empty() ? kFirstSize : 2 * slots_.size());
    old.swap(slots_);
    for (const Slot& slot : old) {
      if (slot.position != kNone) {
        Place(slot);
      }
    }
  }

  std::vector<Slot> slots_;
  size_t size_ = 0;
};

}  // namespace orbisk::fileindex
