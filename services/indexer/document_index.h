// What the indexing daemon asks of an index.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "services/indexer/stamp.h"

namespace fileindexd {

/// A document as far as it matters: where it stands, and what it was made from. Without a stamp nothing is known of the
/// latter.
struct Entry {
  std::string path;
  std::optional<Stamp> stamp;
};

/// What an index has at a path, and whether it has anything below it.
struct LookedUp {
  std::optional<Entry> entry;
  bool below = false;
};

/// The index of one share. What changes a single document may be sent later, but before anything that could tell: a
/// failure then is one of the call that sends it. All throw orbisk::Error with the codes of the search daemon and of
/// the library.
///
/// Threads: those of the implementation.
class DocumentIndex {
 public:
  virtual ~DocumentIndex() = default;

  /// The document of `path`; nothing if there is none.
  virtual std::optional<Entry> Find(const std::string& path) = 0;
  /// The same, and whether there are documents below.
  virtual LookedUp LookUp(const std::string& path) = 0;
  /// These paths will be looked up soon: their answers can be had together. Changes nothing in what LookUp says.
  virtual void Expect(const std::vector<std::string>& paths) = 0;
  /// The documents of `path` and of all below it, in any order.
  virtual std::vector<Entry> FindTree(const std::string& path) = 0;
  /// Some of the documents that are neither at `path` nor below it; none when there are none.
  virtual std::vector<Entry> FindOutside(const std::string& path) = 0;
  /// Adds or replaces the document; its stamp is gone.
  virtual void Upsert(const std::string& path, bool need_meta) = 0;
  /// Sets the attributes alone. The document exists.
  virtual void SetAttributes(const std::string& path) = 0;
  virtual void SetStamp(const std::string& path, const std::string& stamp) = 0;
  /// Removes the document of `path`, if there is one.
  virtual void RemoveOne(const std::string& path) = 0;
  /// Removes the documents of all below `path`.
  virtual void RemoveBelow(const std::string& path) = 0;
  /// Moves the documents of `from` and of all below it, with their stamps.
  virtual void Move(const std::string& from, const std::string& to) = 0;
  /// Moves the document of `from` alone, if there is one; that of `to` goes.
  virtual void MoveOne(const std::string& from, const std::string& to) = 0;
  virtual void Commit() = 0;
};

}  // namespace fileindexd
