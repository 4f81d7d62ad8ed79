// A job goes from lane to lane until its commands are done.
#include "services/search/dispatcher.h"

#include <algorithm>
#include <array>
#include <boost/asio/post.hpp>
#include <optional>
#include <utility>

#include "services/base/json_text.h"
#include "services/base/log.h"
#include "services/search/problem.h"
#include "services/search/refusal.h"
#include "services/search/request.h"

namespace nimoelasticd {

using service::Record;

namespace {

// Longer messages are taken apart on a worker, so that the event loop stays quick; a shorter one takes well below a
// millisecond.
constexpr size_t kShortMessage = size_t{64} * 1024;

std::string ErrorMember(int code, const std::string& message) {
  Json::Value error;
  error["code"] = code;
  error["msg"] = message;
  return "\"error\":" + service::ToText(error);
}

// After these no command for the index can do anything, or what was done is gone. Clients pass over the failure of
// single commands, so that the request as a whole has to fail.
bool IsForTheWhole(int code) {
  static constexpr std::array kCodes = {static_cast<int>(Code::kNotReady),
                                        static_cast<int>(Code::kUpgrading),
                                        static_cast<int>(Code::kPaused),
                                        static_cast<int>(Code::kRepairing),
                                        static_cast<int>(Code::kAnswerTooLarge),
                                        static_cast<int>(Code::kNoDatabase),
                                        static_cast<int>(Code::kDamaged),
                                        static_cast<int>(Code::kStorage),
                                        static_cast<int>(search::ErrorCode::kDiskFull)};
  return std::find(kCodes.begin(), kCodes.end(), code) != kCodes.end();
}

std::string Success(const std::string& result) {
  return result.empty() ? R"({"success":true})" : "{\"data\":" + result + ",\"success\":true}";
}

}  // namespace

struct Dispatcher::Job {
  Job(Reply on_reply, size_t max_answer_bytes) : reply(std::move(on_reply)), max_bytes(max_answer_bytes) {}
  ~Job() {
    if (counter != nullptr) {
      --*counter;
    }
  }
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;

  bool done() const { return failed_as_a_whole || next == request->size(); }

  // Takes the outcome of the next command.
  void Add(const std::optional<Problem>& problem, const std::string& result) {
    ++next;
    command.reset();
    const std::string outcome = problem ? Failure(problem->code, problem->message) : Success(result);
    if (!request->compound()) {
      answer = outcome;
      return;
    }
    if (problem && IsForTheWhole(problem->code)) {
      failed_as_a_whole = true;
      answer = outcome;
      return;
    }
    has_fail = has_fail || problem;
    results += (results.empty() ? "" : ",") + outcome;
    if (results.size() > max_bytes) {
      failed_as_a_whole = true;  // before the rest takes still more memory
      results = std::string();
      answer = TooLong();
    }
  }

  void Finish() {
    if (request->compound() && !failed_as_a_whole) {
      answer = "{\"data\":[" + results + "],\"has_fail\":" + (has_fail ? "true" : "false") + ",\"success\":true}";
    }
    if (answer.size() > max_bytes) {
      answer = TooLong();
    }
    reply(std::move(answer));
  }

  static std::string TooLong() {
    return Failure(static_cast<int>(Code::kAnswerTooLarge), "the answer is too long: ask for less at once");
  }

  Reply reply;
  const size_t max_bytes;  // of the answer
  std::optional<Request> request;
  size_t next = 0;
  std::optional<Command> command;  // the next one, if it was read before its turn
  std::string results;             // of a compound request
  std::string answer;
  bool has_fail = false;
  bool failed_as_a_whole = false;
  std::atomic<size_t>* counter = nullptr;  // where it counts as waiting
};

Dispatcher::Dispatcher(Catalog& catalog, const DispatcherLimits& limits)
    : catalog_(catalog),
      commands_(catalog, limits.max_answer_bytes),
      limits_(limits),
      writers_(limits.writer_threads),
      readers_(limits.reader_threads),
      lanes_(writers_) {
  catalog_.OnDamage(
      [this](const std::string& id) { lanes_.Post(id, [this, id] { Try([&] { catalog_.Repair(id); }); }); });
}

Dispatcher::~Dispatcher() {
  Stop();
}

void Dispatcher::Start() {
  for (const std::string& id : catalog_.Start()) {
    lanes_.Post(id, [this, id] {
      if (const std::optional<Problem> problem = Try([&] { catalog_.Open(id); })) {
        Record(LOG_ERR, "index_not_opened").Add("index", id).Add("reason", problem->message);
      } else if (on_commit_) {
        on_commit_(id);  // the daemon before may have ended with room to give back
      }
    });
  }
}

void Dispatcher::Stop() {
  stopping_ = true;
  writers_.join();
  readers_.join();
}

std::string Dispatcher::Failure(int code, const std::string& message) {
  return "{" + ErrorMember(code, message) + ",\"success\":false}";
}

void Dispatcher::Submit(std::string message, Reply reply) {
  const auto job = std::make_shared<Job>(std::move(reply), limits_.max_answer_bytes);
  if (message.size() <= kShortMessage) {
    Admit(job, std::move(message), Place{});
    return;
  }
  const auto text = std::make_shared<std::string>(std::move(message));
  boost::asio::post(readers_, [this, job, text] { Admit(job, std::move(*text), Place{true, std::nullopt}); });
}

void Dispatcher::Admit(const JobPtr& job, std::string&& message, const Place& here) {
  bool question = false;
  std::optional<Problem> problem = Try([&] {
    job->request.emplace(std::move(message));
    if (!job->request->compound()) {
      job->command = job->request->At(0);
      const Traffic traffic = Commands::RouteOf(*job->command).traffic;
      question = traffic == Traffic::kReading || traffic == Traffic::kQuestion;
    }
  });
  if (!problem) {
    std::atomic<size_t>& counter = question ? waiting_questions_ : waiting_changes_;
    job->counter = &counter;
    if (++counter > limits_.max_waiting) {
      problem = Problem{static_cast<int>(Code::kTooManyWaiting), "too many requests are waiting"};
    }
  }
  if (!problem && job->command) {
    job->request->ReleaseText();
    if (here.worker) {
      problem = Try([&] { commands_.Prepare(*job->command); });
    }
  }
  if (problem) {
    job->reply(Failure(problem->code, problem->message));
    return;
  }
  Continue(job, here);
}

// What the command needs to be run. Throws what can be said at once.
Route Dispatcher::Find(const Command& command) const {
  Route route = Commands::RouteOf(command);
  if (route.traffic != Traffic::kDocument && route.traffic != Traffic::kQuestion) {
    return route;
  }
  const HostPtr host = catalog_.Find(route.index);
  const State state = host != nullptr ? host->state() : State::kGone;
  if (route.traffic == Traffic::kQuestion) {
    if (state == State::kAbsent) {
      route.traffic = Traffic::kDocument;  // to have it opened in its turn
    }
    return route;
  }
  if (host == nullptr && lanes_.Count(route.index) == 0) {
    throw Refusal(Code::kUnknownIndex, "no such index: " + route.index);
  }
  // These take long, and the client knows how to wait.
  if (WillOpenSoon(state)) {
    host->RequireOpen();
  }
  return route;
}

void Dispatcher::Continue(const JobPtr& job, const Place& here) {
  while (!job->done()) {
    if (stopping_) {
      return;  // without an answer; the connection is closed
    }
    Route route;
    const std::optional<Problem> problem = Try([&] {
      if (!job->command) {
        job->command = job->request->At(job->next);
      }
      route = Find(*job->command);
    });
    if (problem) {
      job->Add(problem, "");
      continue;
    }
    const bool in_turn =
        route.traffic == Traffic::kReading || route.traffic == Traffic::kQuestion || here.lane == route.index;
    if (!here.worker || !in_turn) {
      Post(job, route);
      return;
    }
    Run(*job, route);
  }
  job->Finish();
}

void Dispatcher::Post(const JobPtr& job, const Route& route) {
  if (route.traffic == Traffic::kReading || route.traffic == Traffic::kQuestion) {
    boost::asio::post(readers_, [this, job] { Continue(job, Place{true, std::nullopt}); });
  } else {
    lanes_.Post(route.index, [this, job, lane = route.index] { Continue(job, Place{true, lane}); });
  }
}

void Dispatcher::Run(Job& job, const Route& route) {
  std::string result;
  const std::optional<Problem> problem = Try([&] {
    EnsureOpen(route);
    result = commands_.Run(*job.command);
  });
  if (!problem && on_commit_ && (job.command->name == "commit" || job.command->name == "index_resume")) {
    on_commit_(route.index);
  }
  job.Add(problem, result);
}

void Dispatcher::OnCommit(std::function<void(const std::string& id)> on_commit) {
  on_commit_ = std::move(on_commit);
}

void Dispatcher::Compact(const std::string& id, std::chrono::milliseconds budget, std::function<void(bool more)> done) {
  lanes_.Post(id, [this, id, budget, done = std::move(done)] {
    const HostPtr host = catalog_.Find(id);
    if (stopping_ || host == nullptr || host->state() != State::kOpen) {
      return;
    }
    bool more = false;
    const std::optional<Problem> problem = Try([&] {
      const HostedIndex::Use index(*host);
      // What is not committed ends in a commit, after which this is asked again.
      more = !index->HasUncommitted() && index->Compact(budget);
    });
    if (problem && problem->code == static_cast<int>(Code::kDamaged)) {
      catalog_.ReportDamage(id);
    }
    if (problem) {
      Record(LOG_WARNING, "compaction_failed").Add("index", id).Add("reason", problem->message);
      return;
    }
    done(more);
  });
}

void Dispatcher::EnsureOpen(const Route& route) {
  if (route.traffic == Traffic::kDocument) {
    const HostPtr host = catalog_.Find(route.index);
    if (host != nullptr && host->state() == State::kAbsent) {
      catalog_.Open(route.index);
    }
  }
}

}  // namespace nimoelasticd
