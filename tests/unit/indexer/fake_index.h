// An index in memory, which notes what it is asked. What it notes is read when nobody asks any more.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "orbisk/error.h"
#include "services/indexer/document_index.h"
#include "services/indexer/policy.h"
#include "tests/support/temp_dir.h"

namespace fileindexd {

class FakeIndex : public DocumentIndex {
 public:
  struct Document {
    std::string text;
    std::string stamp;
  };

  std::optional<Entry> Find(const std::string& path) override {
    const std::lock_guard lock(mutex_);
    const auto found = documents.find(path);
    return found == documents.end() ? std::nullopt : std::optional(Entry{path, StampFromText(found->second.stamp)});
  }
  LookedUp LookUp(const std::string& path) override {
    on_look_up(path);
    const std::lock_guard lock(mutex_);
    ++questions;
    const auto next = documents.lower_bound(path + "/");
    return {Find(path), next != documents.end() && next->first.starts_with(path + "/")};
  }
  void Expect(const std::vector<std::string>& paths) override {
    const std::lock_guard lock(mutex_);
    expected.push_back(paths);
  }
  std::vector<Entry> FindTree(const std::string& path) override {
    return FindWhere([&path](const std::string& at) { return IsAtOrBelow(at, path); });
  }
  std::vector<Entry> FindOutside(const std::string& path) override {
    return FindWhere([&path](const std::string& at) { return !IsAtOrBelow(at, path); });
  }
  void Upsert(const std::string& path, bool need_meta) override {
    on_change(path);
    const std::lock_guard lock(mutex_);
    calls.push_back((need_meta ? "read " : "add ") + path);
    if ((need_meta && unreadable.count(path) != 0) || refused.count(path) != 0 || extractor_ends-- > 0 ||
        Look(path, false).kind == Kind::kNothing || extractor_down) {
      throw orbisk::Error(orbisk::Code(914), "Parse failed");
    }
    const bool is_file = Look(path, false).kind == Kind::kFile;
    documents[path] = {is_file && need_meta ? orbisk::test::ReadFile(path) : "", ""};
  }
  void SetAttributes(const std::string& path) override {
    on_change(path);
    const std::lock_guard lock(mutex_);
    calls.push_back("attributes " + path);
    if (refused.count(path) != 0) {
      throw orbisk::Error(orbisk::Code(1210), "not accepted");
    }
  }
  void SetStamp(const std::string& path, const std::string& stamp) override {
    const std::lock_guard lock(mutex_);
    documents[path].stamp = stamp;
  }
  void RemoveOne(const std::string& path) override {
    const std::lock_guard lock(mutex_);
    ++removals;
    documents.erase(path);
  }
  void RemoveBelow(const std::string& path) override {
    const std::lock_guard lock(mutex_);
    ++removals;
    std::erase_if(documents,
                  [&](const auto& document) { return document.first != path && IsAtOrBelow(document.first, path); });
  }
  void Move(const std::string& from, const std::string& to) override {
    const std::lock_guard lock(mutex_);
    calls.push_back("move " + from + " " + to);
    std::map<std::string, Document> moved;
    for (const auto& [path, document] : documents) {
      if (IsAtOrBelow(path, from)) {
        moved[to + path.substr(from.size())] = document;
      }
    }
    moved.insert(documents.begin(), documents.end());
    std::erase_if(moved, [&](const auto& document) {
      return documents.count(document.first) != 0 && IsAtOrBelow(document.first, from);
    });
    documents = std::move(moved);
  }
  void MoveOne(const std::string& from, const std::string& to) override {
    const std::lock_guard lock(mutex_);
    calls.push_back("move " + from + " " + to);
    const auto found = documents.find(from);
    if (found != documents.end()) {
      documents[to] = std::exchange(found->second, {});
      documents.erase(from);
    }
  }
  void Commit() override {
    const std::lock_guard lock(mutex_);
    calls.push_back("commit");
  }

  // Both may wait, or throw.
  std::function<void(const std::string& path)> on_look_up = [](const auto&) {};
  std::function<void(const std::string& path)> on_change = [](const auto&) {};  // of content or attributes
  std::map<std::string, Document> documents;
  std::vector<std::string> calls;
  std::set<std::string> unreadable;
  std::set<std::string> refused;  // even without content
  int extractor_ends = 0;         // so many times in the middle of its work
  int removals = 0;               // asked for
  int questions = 0;
  std::vector<std::vector<std::string>> expected;
  bool extractor_down = false;

 private:
  mutable std::recursive_mutex mutex_;

  template <typename Wanted>
  std::vector<Entry> FindWhere(const Wanted& wanted) const {
    const std::lock_guard lock(mutex_);
    std::vector<Entry> entries;
    for (const auto& [at, document] : documents) {
      if (wanted(at)) {
        entries.push_back({at, StampFromText(document.stamp)});
      }
    }
    return entries;
  }
};

}  // namespace fileindexd
