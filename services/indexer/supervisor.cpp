// Commands and configuration.
#include "services/indexer/supervisor.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <chrono>
#include <ctime>
#include <limits>
#include <system_error>
#include <utility>

#include "orbisk/error.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "services/base/log.h"
#include "services/indexer/broken_contents.h"

namespace fileindexd {

namespace fi = orbisk::fileindex;
using orbisk::Error;
using service::Record;

namespace {

constexpr std::chrono::seconds kLongestDeletion{10};
constexpr std::chrono::seconds kLater{30};
constexpr std::chrono::milliseconds kUntilItListens{500};

Json::Value Success() {
  Json::Value answer;
  answer["success"] = true;
  return answer;
}

Json::Value Refusal(const std::string& reason) {
  Json::Value answer;
  answer["success"] = false;
  answer["error"]["msg"] = reason;
  return answer;
}

// The share that a command is about; "" if it names none.
std::string ShareOf(const Json::Value& data) {
  const bool named = data.isObject() && data["share_name"].isString();
  return named ? data["share_name"].asString() : "";
}

}  // namespace

Supervisor::Supervisor(boost::asio::io_context& context, const SupervisorSettings& settings)
    : context_(context),
      settings_(settings),
      extractions_(settings.extractions),
      roots_(settings.roots_file),
      watch_(context),
      mounts_(context,
              [this] {
                for (auto& [share, slot] : slots_) {
                  slot.worker->NoteMounts();
                }
              }),
      registrations_(context, settings.worker.registrations),
      pause_end_(context),
      later_(context),
      extractor_came_(context) {}

void Supervisor::Start() {
  watch_.Add(settings_.worker.folders_file, [this] { Configure(); });
  watch_.Add(settings_.share_registry, [this] { Configure(); });
  watch_.Add(settings_.worker.status_file, [this] { ReadStatus(); });
  watch_.AddSocket(kExtractorSocket, [this] { OnExtractor(); });
  Reload();
}

void Supervisor::Reload() {
  ReadPause();
  Configure();
}

void Supervisor::Stop() {
  stopping_ = true;
  for (auto& [share, slot] : slots_) {
    slot.worker->Stop();
  }
}

bool Supervisor::IsAwaited() const {
  return std::any_of(slots_.begin(), slots_.end(), [](const auto& slot) { return !slot.second.on_gone.empty(); });
}

void Supervisor::AnswerAll() {
  for (auto& [share, slot] : slots_) {
    for (const auto& gone : std::exchange(slot.on_gone, {})) {
      gone();
    }
  }
}

void Supervisor::Handle(const Json::Value& message, Answer answer) {
  const std::string type = message.isObject() && message["type"].isString() ? message["type"].asString() : "";
  const Json::Value& data = message.isObject() ? message["data"] : Json::Value::nullSingleton();
  const std::string share = ShareOf(data);
  if (type == "status") {
    answer(Status(data));
  } else if (type == "pause" || type == "resume") {
    ReadPause();
    answer(Success());
  } else if (type == "notify_setting_changed") {
    Configure();
    answer(Success());
  } else if ((type == "worker_create" || type == "worker_delete") && share.empty()) {
    answer(Refusal("the command names no share: " + type));
  } else if (type == "worker_create") {
    deleted_.erase(share);
    const auto present = slots_.find(share);
    if (present != slots_.end()) {
      present->second.worker->CompareAll();  // nobody says this of a worker that missed nothing
    }
    Configure();
    AwaitMonitor(share);
    answer(Success());
  } else if (type == "worker_delete") {
    DeleteWorker(share, std::move(answer));
  } else {
    answer(Refusal("unknown command: " + type));
  }
}

// Workers come and go as the configuration says; those that stay look at it themselves.
void Supervisor::Configure() {
  if (stopping_) {
    return;
  }
  watch_.LookForMissing();
  std::set<std::string> wanted;
  try {
    wanted = WantedShares();
  } catch (const Error& error) {
    Record(LOG_ERR, "configuration_unreadable").Add("reason", error.reason());
    return;
  }
  for (auto& [share, slot] : slots_) {
    if (wanted.count(share) == 0) {
      slot.worker->CompareAll();  // nobody knows in which state it comes back
      Leave(slot);
    } else {
      slot.worker->NoteConfiguration();
    }
  }
  problems_.clear();
  for (const std::string& share : wanted) {
    CreateWorker(share);
  }
}

std::set<std::string> Supervisor::WantedShares() {
  std::set<std::string> shares = fi::FolderMgr().GetIndexedShares();
  roots_.KeepOnly(shares);
  // One that is configured anew, some day, is another matter.
  std::erase_if(deleted_, [&shares](const std::string& share) { return shares.count(share) == 0; });
  for (const std::string& share : deleted_) {
    shares.erase(share);
  }
  return shares;
}

// One that works at another place than the share's present one has to go first.
void Supervisor::CreateWorker(const std::string& share) {
  ShareInfo info;
  try {
    info = ShareInfo::Of(share);
  } catch (const Error& error) {
    problems_[share] = error.code() == 800 ? "there is no such share" : error.reason();
    Record(LOG_WARNING, "share_not_served").Add("share", share).Add("reason", problems_[share]);
    return;  // what it has, if anything, finds that out by itself
  }
  const auto present = slots_.find(share);
  if (present != slots_.end()) {
    if (!present->second.leaving && !(present->second.worker->share() == info)) {
      Leave(present->second);
    }
    return;
  }
  const auto on_end = [this, share] { boost::asio::post(context_, [this, share] { OnEnd(share); }); };
  std::unique_ptr<Worker> made;
  try {
    made = std::make_unique<Worker>(info, settings_.worker, extractions_, roots_, paused_, on_end);
  } catch (const std::system_error& error) {
    problems_[share] = std::string("there can be no thread: ") + error.what();
    Record(LOG_ERR, "share_not_served").Add("share", share).Add("reason", problems_[share]);
    ConfigureLater();
    return;
  }
  Worker* const worker = made.get();
  Slot& slot = slots_[share];
  slot.worker = std::move(made);
  slot.watch = watch_.Add(info.queue, [worker] { worker->NoteQueue(); });
  worker->NoteConfiguration();  // for what was written before the watch stood
}

// A volume that is resumed has its workers first and is registered with the monitor then: what changed in between was
// told by nobody, and the comparison may have been there before it.
void Supervisor::AwaitMonitor(const std::string& share) {
  const auto present = slots_.find(share);
  if (present == slots_.end()) {
    return;
  }
  registrations_.Await(present->second.worker->share().queue, [this, share] {
    const auto found = slots_.find(share);
    if (found != slots_.end()) {
      found->second.worker->CompareAll();
    }
  });
}

// Its socket came or went. Another one may read what failed before, so nobody has to wait for the next change.
void Supervisor::OnExtractor() {
  extractor_came_.expires_after(kUntilItListens);
  extractor_came_.async_wait([this](const boost::system::error_code& error) {
    if (!error) {
      for (auto& [share, slot] : slots_) {
        slot.worker->NoteExtractor();
      }
    }
  });
}

// Nothing tells when the box has room for one more thread.
void Supervisor::ConfigureLater() {
  later_.expires_after(kLater);
  later_.async_wait([this](const boost::system::error_code& error) {
    if (!error) {
      Configure();
    }
  });
}

void Supervisor::Leave(Slot& slot) {
  if (!std::exchange(slot.leaving, true)) {
    watch_.Remove(slot.watch);
    slot.worker->Stop();
  }
}

void Supervisor::OnEnd(const std::string& share) {
  const auto found = slots_.find(share);
  if (found == slots_.end()) {
    return;
  }
  const std::vector<std::function<void()>> on_gone = std::move(found->second.on_gone);
  slots_.erase(found);
  for (const auto& gone : on_gone) {
    gone();
  }
  Configure();  // it may be wanted again
}

void Supervisor::DeleteWorker(const std::string& share, Answer answer) {
  deleted_.insert(share);
  const auto found = slots_.find(share);
  if (found == slots_.end()) {
    ForgetMark(share);
    answer(Success());
    return;
  }
  found->second.worker->CompareAll();  // what happens from now on is not in the queue
  // Whichever comes first answers.
  const auto once = std::make_shared<Answer>(std::move(answer));
  const auto respond = [once] {
    if (const Answer pending = std::exchange(*once, nullptr)) {
      pending(Success());
    }
  };
  const auto limit = std::make_shared<boost::asio::steady_timer>(context_, kLongestDeletion);
  limit->async_wait([respond, limit](const boost::system::error_code&) { respond(); });
  found->second.on_gone.push_back([respond, limit] {
    respond();
    limit->cancel();
  });
  Leave(found->second);
}

// Of a share without a worker.
void Supervisor::ForgetMark(const std::string& share) {
  try {
    RemoveMark(MarkPath(ShareInfo::Of(share).queue));
  } catch (const Error&) {
    // There is no such share.
  } catch (const std::system_error& error) {
    Record(LOG_WARNING, "mark_stays").Add("share", share).Add("reason", error.what());
  }
}

// The pause, and the flags of shares, which the workers read.
void Supervisor::ReadStatus() {
  ReadPause();
  try {
    const fi::StatusMgr status;
    for (auto& [share, slot] : slots_) {
      if ((status.GetShareStatus(share) & kNeedsReindex) != 0) {
        slot.worker->NoteFlag();
      }
    }
  } catch (const Error&) {  // ReadPause has said why
  }
}

// The pause is stored before anybody is told of it. One with an end ends by itself.
void Supervisor::ReadPause() {
  try {
    pause_until_ = fi::StatusMgr().GetPauseInfo();
  } catch (const Error& error) {
    Record(LOG_ERR, "status_unreadable").Add("reason", error.reason());
    return;
  }
  const bool paused = pause_until_ == 0 || pause_until_ > static_cast<long>(time(nullptr));
  pause_end_.cancel();
  if (paused && pause_until_ != 0) {
    pause_end_.expires_at(std::chrono::system_clock::from_time_t(pause_until_));
    pause_end_.async_wait([this](const boost::system::error_code& error) {
      if (!error) {
        ReadPause();
      }
    });
  }
  if (paused != paused_) {
    Record(LOG_NOTICE, paused ? "paused" : "resumed");
  }
  paused_ = paused;
  for (auto& [share, slot] : slots_) {
    slot.worker->SetPaused(paused);
  }
}

Json::Value Supervisor::Status(const Json::Value& asked) const {
  const bool wants_all = asked.isObject() && asked["failures"] == "all";
  const size_t most_failures = wants_all ? std::numeric_limits<size_t>::max() : Progress::kUsualFailures;
  Json::Value answer = Success();
  Json::Value& data = answer["data"];
  data["paused"] = paused_;
  data["resume_time"] = paused_ ? Json::Int64{pause_until_} : Json::Int64{-1};
  Json::Value& shares = data["shares"] = Json::Value(Json::arrayValue);
  for (const auto& [share, slot] : slots_) {
    shares.append(slot.worker->Report(most_failures));
  }
  for (const auto& [share, problem] : problems_) {
    if (slots_.count(share) == 0) {
      Json::Value& without = shares.append(Json::Value());
      without["share"] = share;
      without["state"] = "offline";
      without["problem"] = problem;
    }
  }
  for (const std::string& share : deleted_) {
    Json::Value& stopped = shares.append(Json::Value());
    stopped["share"] = share;
    stopped["state"] = "deleted";
  }
  return answer;
}

}  // namespace fileindexd
