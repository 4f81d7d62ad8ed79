// Counts, and tells.
#include "services/indexer/progress.h"

#include <algorithm>
#include <cmath>

namespace fileindexd {
namespace {

const char* NameOf(Progress::State state) {
  switch (state) {
    case Progress::State::kIdle:
      return "idle";
    case Progress::State::kWaiting:
      return "waiting";
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
  if (state != State::kWorking) {
    in_work_.clear();  // what a pass left that was broken off
  }
}

void Progress::SetProblem(const std::string& problem) {
  const std::lock_guard lock(mutex_);
  problem_ = problem;
}

void Progress::BeginPass() {
  const std::lock_guard lock(mutex_);
  state_ = State::kWorking;
  done_ = known_ = changed_ = 0;
  in_work_.clear();
  begun_ = ended_ = Clock::now();
}

void Progress::AddWork(std::uint64_t files) {
  const std::lock_guard lock(mutex_);
  known_ += files;
}

void Progress::BeginFile(const std::string& path) {
  const std::lock_guard lock(mutex_);
  in_work_.push_back(path);
}

void Progress::EndFile(const std::string& path, bool changed) {
  const std::lock_guard lock(mutex_);
  if (const auto at = std::find(in_work_.begin(), in_work_.end(), path); at != in_work_.end()) {
    in_work_.erase(at);
  }
  ++done_;
  changed_ += changed ? 1 : 0;
  known_ = std::max(known_, done_);
  ended_ = Clock::now();
}

void Progress::EndPass(std::uint64_t operations) {
  const std::lock_guard lock(mutex_);
  ++passes_;
  operations_ += operations;
  known_ = done_;
  in_work_.clear();
  ended_ = Clock::now();
}

void Progress::NoteRecovery() {
  const std::lock_guard lock(mutex_);
  ++recoveries_;
}

Json::Value Progress::ToJson(size_t most_failures) const {
  const std::lock_guard lock(mutex_);
  Json::Value json;
  json["state"] = NameOf(state_);
  json["problem"] = problem_;
  json["done"] = Json::UInt64{done_};
  json["to_do"] = Json::UInt64{known_ - done_};
  json["changed"] = Json::UInt64{changed_};
  const double seconds = std::chrono::duration<double>(ended_ - begun_).count();
  const double rate = seconds > 0 ? static_cast<double>(done_) / seconds : 0.0;
  json["rate"] = rate;
  json["seconds_left"] = SecondsLeft(rate);
  json["file"] = in_work_.empty() ? "" : in_work_.front();
  json["passes"] = Json::UInt64{passes_};
  json["operations"] = Json::UInt64{operations_};
  json["recoveries"] = Json::UInt64{recoveries_};
  failures_.Report(json, most_failures);
  return json;
}

// Of what is known of; a walk may find more.
Json::Value Progress::SecondsLeft(double rate) const {
  if (state_ != State::kWorking) {
    return state_ == State::kIdle ? Json::Value(Json::UInt64{0}) : Json::Value();
  }
  return rate > 0 ? Json::Value(static_cast<Json::UInt64>(std::ceil(static_cast<double>(known_ - done_) / rate)))
                  : Json::Value();
}

}  // namespace fileindexd
