// A map by path, and the order in which they came.
#include "services/indexer/failures.h"

#include <optional>
#include <utility>

#include "services/base/json_text.h"
#include "services/indexer/policy.h"
#include "services/indexer/whole_file.h"

namespace fileindexd {
namespace {

constexpr size_t kMostFailures = 10'000;
constexpr char kUnexplained[] = "the extractor failed at it";

}  // namespace

std::string FailuresPath(const std::string& queue) {
  return queue + ".failures";
}

void Failures::Add(const std::string& path, const std::string& reason) {
  const std::lock_guard lock(mutex_);
  const auto present = list_.find(path);
  if (present != list_.end() && present->second.reason == reason) {
    return;
  }
  changed_ = true;
  Put(path, reason);
}

void Failures::AddUnexplained(const std::string& path) {
  if (!Has(path)) {
    Add(path, kUnexplained);
  }
}

void Failures::Explain(const std::string& path, const std::string& reason) {
  if (Has(path)) {
    Add(path, reason);
  }
}

void Failures::Put(const std::string& path, const std::string& reason) {
  if (const auto present = list_.find(path); present != list_.end()) {
    Erase(present);
  }
  if (list_.size() == kMostFailures) {
    Erase(by_age_.begin()->second);
  }
  const auto at = list_.insert_or_assign(path, Failure{reason, next_age_}).first;
  by_age_[next_age_++] = at;
  ++reasons_[reason];
}

void Failures::Erase(List::iterator at) {
  const auto count = reasons_.find(at->second.reason);
  if (--count->second == 0) {
    reasons_.erase(count);
  }
  by_age_.erase(at->second.age);
  list_.erase(at);
  changed_ = true;
}

void Failures::Forgive(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (const auto at = list_.find(path); at != list_.end()) {
    Erase(at);
  }
}

void Failures::ForgiveIf(const std::string& path, const std::string& reason) {
  const std::lock_guard lock(mutex_);
  if (const auto at = list_.find(path); at != list_.end() && at->second.reason == reason) {
    Erase(at);
  }
}

void Failures::ForgiveTree(const std::string& path) {
  for (const std::string& one : PathsIn(path)) {
    Forgive(one);
  }
}

void Failures::Move(const std::string& from, const std::string& to) {
  ForgiveTree(to);
  for (const std::string& path : PathsIn(from)) {
    const std::lock_guard lock(mutex_);
    const auto at = list_.find(path);
    if (at != list_.end()) {
      const std::string reason = at->second.reason;
      Erase(at);
      Put(to + path.substr(from.size()), reason);
    }
  }
}

bool Failures::Has(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  return list_.count(path) != 0;
}

bool Failures::IsFull() const {
  const std::lock_guard lock(mutex_);
  return list_.size() == kMostFailures;
}

std::vector<std::string> Failures::PathsIn(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> paths;
  if (list_.count(path) != 0) {
    paths.push_back(path);
  }
  for (auto at = list_.lower_bound(path + "/"); at != list_.end() && IsAtOrBelow(at->first, path); ++at) {
    paths.push_back(at->first);
  }
  return paths;
}

void Failures::Report(Json::Value& json, size_t most) const {
  const std::lock_guard lock(mutex_);
  json["failed"] = Json::UInt64{list_.size()};
  json["reasons"] = Json::Value(Json::objectValue);
  for (const auto& [reason, count] : reasons_) {
    json["reasons"][reason] = Json::UInt64{count};
  }
  Json::Value& failures = json["failures"] = Json::Value(Json::arrayValue);
  size_t left_out = list_.size() > most ? list_.size() - most : 0;
  for (const auto& [age, at] : by_age_) {
    if (left_out > 0) {
      --left_out;
      continue;
    }
    Json::Value& one = failures.append(Json::Value());
    one["path"] = at->first;
    one["reason"] = at->second.reason;
  }
}

bool Failures::Load(const std::string& file, const std::string& folder) {
  const std::optional<Json::Value> json = service::FromText(ContentOf(file));
  if (!json || !json->isObject() || !(*json)["failures"].isArray()) {
    return false;
  }
  const std::lock_guard lock(mutex_);
  for (const Json::Value& one : (*json)["failures"]) {
    const bool good = one.isObject() && one["path"].isString() && one["reason"].isString();
    if (good && list_.count(folder + one["path"].asString()) == 0) {
      Put(folder + one["path"].asString(), one["reason"].asString());
    }
  }
  if (reader_.empty() && (*json)["reader"].isString()) {
    reader_ = (*json)["reader"].asString();
  }
  changed_ = false;
  return true;
}

void Failures::Store(const std::string& file, const std::string& folder) {
  Json::Value json;
  {
    const std::lock_guard lock(mutex_);
    if (!std::exchange(changed_, false)) {
      return;
    }
    json["reader"] = reader_;
    Json::Value& failures = json["failures"] = Json::Value(Json::arrayValue);
    for (const auto& [age, at] : by_age_) {
      if (IsAtOrBelow(at->first, folder)) {
        Json::Value& one = failures.append(Json::Value());
        one["path"] = at->first.substr(folder.size());
        one["reason"] = at->second.reason;
      }
    }
  }
  try {
    ReplaceFile(file, service::ToText(json) + "\n");
  } catch (...) {
    const std::lock_guard lock(mutex_);
    changed_ = true;
    throw;
  }
}

std::string Failures::reader() const {
  const std::lock_guard lock(mutex_);
  return reader_;
}

void Failures::SetReader(const std::string& reader) {
  const std::lock_guard lock(mutex_);
  changed_ = changed_ || reader_ != reader;
  reader_ = reader;
}

}  // namespace fileindexd
