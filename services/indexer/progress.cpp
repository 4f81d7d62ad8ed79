// Counts, and tells.
#include "services/indexer/progress.h"

#include <algorithm>

namespace fileindexd {
namespace {

constexpr size_t kMostFailures = 100;

const char* NameOf(Progress::State state) {
  switch (state) {
    case Progress::State::kIdle:
      return "idle";
    case Progress::State::kWorking:
      return "working";
    case Progress::State::kPaused:
      return "paused";
    case Progress::State::kFailing:
      return "failing";
    case Progress::State::kOffline:
      return "offline";
    case Progress::State::kNoSpace:
      return "no_space";
  }
  return "";
}

}  // namespace

void Progress::SetState(State state) {
  const std::lock_guard lock(mutex_);
  state_ = state;
}

void Progress::SetProblem(const std::string& problem) {
  const std::lock_guard lock(mutex_);
  problem_ = problem;
}

void Progress::BeginPass() {
  const std::lock_guard lock(mutex_);
  state_ = State::kWorking;
  done_ = known_ = changed_ = 0;
  begun_ = ended_ = Clock::now();
}

void Progress::AddWork(std::uint64_t files) {
  const std::lock_guard lock(mutex_);
  known_ += files;
}

void Progress::BeginFile(const std::string& path) {
  const std::lock_guard lock(mutex_);
  file_ = path;
}

void Progress::EndFile(bool changed) {
  const std::lock_guard lock(mutex_);
  ++done_;
  changed_ += changed ? 1 : 0;
  known_ = std::max(known_, done_);
  file_.clear();
  ended_ = Clock::now();
}

void Progress::EndPass(std::uint64_t operations) {
  const std::lock_guard lock(mutex_);
  ++passes_;
  operations_ += operations;
  known_ = done_;
  file_.clear();
  ended_ = Clock::now();
}

void Progress::AddFailure(const std::string& path, const std::string& reason) {
  const std::lock_guard lock(mutex_);
  ++failed_;
  failures_.push_back({path, reason});
  if (failures_.size() > kMostFailures) {
    failures_.pop_front();
  }
}

Json::Value Progress::ToJson() const {
  const std::lock_guard lock(mutex_);
  Json::Value json;
  json["state"] = NameOf(state_);
  json["problem"] = problem_;
  json["done"] = Json::UInt64{done_};
  json["to_do"] = Json::UInt64{known_ - done_};
  json["changed"] = Json::UInt64{changed_};
  const double seconds = std::chrono::duration<double>(ended_ - begun_).count();
  json["rate"] = seconds > 0 ? static_cast<double>(done_) / seconds : 0.0;
  json["file"] = file_;
  json["passes"] = Json::UInt64{passes_};
  json["operations"] = Json::UInt64{operations_};
  json["failed"] = Json::UInt64{failed_};
  Json::Value& failures = json["failures"] = Json::Value(Json::arrayValue);
  for (const Failure& failure : failures_) {
    Json::Value& one = failures.append(Json::Value());
    one["path"] = failure.path;
    one["reason"] = failure.reason;
  }
  return json;
}

}  // namespace fileindexd
