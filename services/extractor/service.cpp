// Answers requests.
#include "services/extractor/service.h"

#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

#include "services/base/json_text.h"
#include "services/base/log.h"
#include "services/extractor/open_file.h"
#include "services/extractor/reader_version.h"

namespace extractor {

using service::Record;
using service::UniqueFd;

namespace {

constexpr size_t kMostFailures = 10'000;
constexpr size_t kUsualLatest = 100;
constexpr size_t kMostLatest = 10'000;
constexpr size_t kMostLatestBytes = size_t{4} << 20;

ErrorCode CodeOf(Outcome::Kind kind) {
  switch (kind) {
    case Outcome::Kind::kDeadline:
      return ErrorCode::kDeadline;
    case Outcome::Kind::kMemory:
      return ErrorCode::kMemory;
    case Outcome::Kind::kRefused:
      return ErrorCode::kRefused;
    case Outcome::Kind::kNoWorker:
      return ErrorCode::kWorkers;
    default:
      return ErrorCode::kDied;
  }
}

double Seconds(Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

Service::Service(boost::asio::io_context& context, const Options& options)
    : reader_(ReaderVersion(options)),
      failures_(options.state_folder, reader_, kMostFailures),
      pool_(context, options) {}

void Service::Handle(const std::string& request, const Reply& reply) {
  const Request understood = ParseRequest(request);
  switch (understood.kind) {
    case Request::Kind::kStatus:
      reply(DataAnswer(Status(understood)));
      return;
    case Request::Kind::kMalformed:
      reply(ErrorAnswer(ErrorCode::kMalformed, understood.complaint));
      return;
    case Request::Kind::kParse:
      ++requests_;
      Parse(understood, reply);
      return;
  }
}

void Service::Parse(const Request& request, const Reply& reply) {
  try {
    const UniqueFd subject = OpenSubject(request.path);
    const Attributes attributes = AttributesOf(subject.get());
    Json::Value document(Json::objectValue);
    AddAttributes(attributes, request.pseudo_path, document);
    if (request.need_meta && S_ISREG(attributes.mode)) {
      ReadContent(request, subject, attributes, std::move(document), reply);
    } else {
      reply(DataAnswer(document));
    }
  } catch (const std::exception& error) {
    Note(request.path, "open", error.what());
    reply(ErrorAnswer(ErrorCode::kOpen, error.what()));
  }
}

void Service::ReadContent(const Request& request, const UniqueFd& subject, const Attributes& attributes,
                          Json::Value document, const Reply& reply) {
  if (attributes.size_bytes == 0) {
    AddContentDates(attributes, document);
    reply(DataAnswer(document));
    return;
  }
  const FailureStore::Content content{FailureList::IdentityOf(attributes), request.path};
  if (const FailureList::Failure* known = failures_.Find(content.identity)) {
    ++counts_["known"];
    reply(ErrorAnswer(CodeOf(known->kind),
                      known->message + " (before; not tried again until the file or the extractor changes)"));
    return;
  }
  Job job;
  job.file = OpenForReading(subject);
  job.path = request.path;
  job.name = NameOf(request.pseudo_path);
  job.alone = failures_.IsSuspect(content.identity);
  const auto in_work = std::make_shared<std::optional<FailureStore::InWork>>();
  job.on_start = [this, content, in_work] {
    if (!in_work->has_value()) {
      in_work->emplace(failures_, content);
    }
  };
  job.done = [this, request, attributes, in_work, document = std::move(document), reply](Outcome outcome) mutable {
    OnOutcome(request, attributes, std::move(document), std::move(outcome), reply);
  };
  pool_.Submit(std::move(job));
}

void Service::OnOutcome(const Request& request, const Attributes& attributes, Json::Value document, Outcome outcome,
                        const Reply& reply) {
  if (outcome.kind != Outcome::Kind::kKilled && outcome.kind != Outcome::Kind::kNoWorker) {
    failures_.Acquit(FailureList::IdentityOf(attributes));
  }
  Json::Value extra(Json::objectValue);
  if (outcome.kind == Outcome::Kind::kRead) {
    ++contents_;
    for (const std::string& name : outcome.fields.getMemberNames()) {
      document[name].swap(outcome.fields[name]);
    }
    if (outcome.cut) {
      extra["cut"] = true;
      AddCutNote(document);
    }
    AddContentDates(attributes, document);
    reply(DataAnswer(document, std::move(extra), outcome.text));
    return;
  }
  Note(request.path, NameOf(outcome.kind), outcome.message);
  if (outcome.kind == Outcome::Kind::kBroken) {
    AddContentDates(attributes, document);
    extra["broken"] = outcome.message;
    reply(DataAnswer(document, std::move(extra)));
    return;
  }
  if (IsContentsFault(outcome.kind)) {
    failures_.Add({FailureList::IdentityOf(attributes), request.path}, {outcome.kind, outcome.message});
  }
  reply(ErrorAnswer(CodeOf(outcome.kind), outcome.message));
}

void Service::Note(const std::string& path, const std::string& reason, const std::string& message) {
  const int level = reason == "open" || reason == "broken" ? LOG_INFO : LOG_WARNING;
  Record(level, "content_failed").Add("reason", reason).Add("message", message).Add("path", path);
  ++counts_[reason];
  latest_.push_back({path, reason, message});
  latest_bytes_ += latest_.back().size();
  ++noted_;
  while (latest_.size() > kMostLatest || latest_bytes_ > kMostLatestBytes) {
    latest_bytes_ -= latest_.front().size();
    latest_.pop_front();
  }
}

// How many of the latest failures an answer has. Who was told of more than there were asked another extractor.
size_t Service::CountLatest(const Request& request) const {
  const uint64_t news = request.since > noted_ ? noted_ : noted_ - request.since;
  return std::min<uint64_t>(latest_.size(), request.wants_failures ? news : kUsualLatest);
}

Json::Value Service::Status(const Request& request) const {
  Json::Value status(Json::objectValue);
  Json::Value& in_work = status["in_work"] = Json::Value(Json::arrayValue);
  Json::Value& workers = status["workers"] = Json::Value(Json::arrayValue);
  for (const std::shared_ptr<Worker>& worker : pool_.workers()) {
    workers.append(worker->pid());
    if (worker->job()) {
      Json::Value work;
      work["path"] = worker->job()->path;
      work["seconds"] = Seconds(worker->busy_for());
      work["worker"] = worker->pid();
      in_work.append(std::move(work));
    }
  }
  status["state"] = in_work.empty() && pool_.waiting() == 0 ? "idle" : "working";
  status["reader"] = reader_;
  status["waiting"] = Json::UInt64{pool_.waiting()};
  status["requests"] = Json::UInt64{requests_};
  status["contents"] = Json::UInt64{contents_};
  status["known_failures"] = Json::UInt64{failures_.size()};
  status["suspects"] = Json::UInt64{failures_.suspects()};
  Json::Value& counts = status["failures"] = Json::Value(Json::objectValue);
  for (const auto& [reason, count] : counts_) {
    counts[reason] = Json::UInt64{count};
  }
  Json::Value& latest = status["latest_failures"] = Json::Value(Json::arrayValue);
  for (size_t i = latest_.size() - CountLatest(request); i < latest_.size(); ++i) {
    Json::Value entry;
    entry["path"] = latest_[i].path;
    entry["reason"] = latest_[i].reason;
    entry["message"] = latest_[i].message;
    latest.append(std::move(entry));
  }
  return status;
}

}  // namespace extractor
