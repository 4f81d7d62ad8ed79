// From a message to its answer: who runs it, when, and what is too much.
#pragma once

#include <atomic>
#include <boost/asio/thread_pool.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "services/search/catalog.h"
#include "services/search/commands.h"
#include "services/search/lanes.h"

namespace nimoelasticd {

struct DispatcherLimits {
  size_t writer_threads = 8;  ///< indexes that are changed at once
  size_t reader_threads = 4;  ///< questions that are answered at once
  size_t max_waiting = 256;   ///< requests of each kind that wait or are worked on; more are told 1400
  /// A longer answer is told 1207 instead; at most kMaxMessageBytes.
  size_t max_answer_bytes = kMaxMessageBytes;
};

/// Runs requests on its threads. Those that change an index, or have to see what was changed before, run in their order
/// of arrival; those for different indexes, and questions, run beside them. The commands of a compound request run one
/// after the other, each in its index's turn.
///
/// Threads: any may call Submit; its order is the order of arrival.
class Dispatcher {
 public:
  /// Gets the answer, a message; called once, on any thread, perhaps before Submit returns.
  using Reply = std::function<void(std::string answer)>;

  Dispatcher(Catalog& catalog, const DispatcherLimits& limits);
  ~Dispatcher();
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  /// Settles what a crash left, and has every index opened.
  void Start();
  void Submit(std::string message, Reply reply);
  /// `on_commit` is called with the id of an index that was committed or opened, on any thread. Call this before Start.
  void OnCommit(std::function<void(const std::string& id)> on_commit);
  /// Tidies an index up, in its turn, for about `budget`; `done` gets to know whether there is more to do. Does nothing
  /// if it is not open.
  void Compact(const std::string& id, std::chrono::milliseconds budget, std::function<void(bool more)> done);
  /// The answer for a client whose message is not even read.
  static std::string Failure(int code, const std::string& message);

  /// Takes up no new command; ends when those in work have ended.
  void Stop();

 private:
  struct Job;
  using JobPtr = std::shared_ptr<Job>;

  /// Where a job is carried on.
  struct Place {
    bool worker = false;              // not the caller of Submit, who must not be kept waiting
    std::optional<std::string> lane;  // whose turn it is
  };

  void Admit(const JobPtr& job, std::string&& message, const Place& here);
  void Continue(const JobPtr& job, const Place& here);
  void Post(const JobPtr& job, const Route& route);
  void Run(Job& job, const Route& route);
  Route Find(const Command& command) const;
  void EnsureOpen(const Route& route);

  Catalog& catalog_;
  Commands commands_;
  const DispatcherLimits limits_;
  std::function<void(const std::string& id)> on_commit_;
  std::atomic<bool> stopping_{false};
  std::atomic<size_t> waiting_changes_{0};
  std::atomic<size_t> waiting_questions_{0};
  boost::asio::thread_pool writers_;
  boost::asio::thread_pool readers_;
  Lanes lanes_;
};

}  // namespace nimoelasticd
