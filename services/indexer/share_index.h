// The index of one share, over the library.
#pragma once

#include <json/json.h>

#include <map>
#include <mutex>
#include <optional>
#include <semaphore>
#include <string>
#include <unordered_set>
#include <vector>

#include "services/indexer/document_index.h"

namespace fileindexd {

/// How many files may be read at once, by all workers together.
using Extractions = std::counting_semaphore<1024>;

/// Threads: any. What was looked up is one thread's business: it asks when no other changes that path.
class ShareIndex : public DocumentIndex {
 public:
  /// `extractions` outlives it.
  ShareIndex(std::string share, Extractions& extractions);

  std::optional<Entry> Find(const std::string& path) override;
  LookedUp LookUp(const std::string& path) override;
  void Expect(const std::vector<std::string>& paths) override;
  std::vector<Entry> FindTree(const std::string& path) override;
  std::vector<Entry> FindOutside(const std::string& path) override;
  void Upsert(const std::string& path, bool need_meta) override;
  void SetAttributes(const std::string& path) override;
  void SetStamp(const std::string& path, const std::string& stamp) override;
  void RemoveOne(const std::string& path) override;
  void RemoveBelow(const std::string& path) override;
  void Move(const std::string& from, const std::string& to) override;
  void MoveOne(const std::string& from, const std::string& to) override;
  void Commit() override;

  /// Forgets the changes that were not sent yet, which a pass that was broken off leaves and makes again.
  void DropChanges();
  /// Whether the index was made with another schema than the library makes one with now.
  bool IsOutdated() const;

  /// Whether a commit may have to follow; true at first, because an earlier daemon may have been killed before its own.
  bool uncommitted() const;

 private:
  Json::Value GetRequest(Json::Value condition, size_t limit) const;
  std::vector<Entry> Query(Json::Value condition, size_t limit);
  void AppendLookUp(const std::string& path, Json::Value& requests) const;
  std::vector<LookedUp> AskFor(Json::Value requests);
  void Change(const std::string& path, Json::Value request);
  void Forget(const std::string& path);
  void SendChanges();
  void BeginChange(const std::string& path);

  std::string share_;
  std::string id_;
  Extractions& extractions_;
  mutable std::mutex mutex_;  // guards the rest
  bool uncommitted_ = true;
  Json::Value changes_;                        // of single documents, not sent yet
  std::unordered_set<std::string> changed_;    // the paths that they are about
  int stamps_ = 0;                             // how many of them are stamps
  std::map<std::string, LookedUp> looked_up_;  // what Expect found, as far as nothing has changed it since
};

}  // namespace fileindexd
