// Arguments and the event loop.
#include "services/indexer/daemon.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "services/base/log.h"
#include "services/base/pid_file.h"
#include "services/base/program.h"
#include "services/base/readiness.h"
#include "services/indexer/command_socket.h"
#include "services/indexer/supervisor.h"

namespace fileindexd {

using service::Record;

namespace {

// Together less than what LimitStopping leaves.
constexpr std::chrono::milliseconds kPatienceWithWorkers{400};
constexpr std::chrono::milliseconds kLastRequests{100};

struct Options {
  std::string socket = "/var/run/fileindexd.sock";
  std::string group = "Orbisk";
  std::string pid_file = "/var/run/fileindexd.pid";
  SupervisorSettings supervisor;
};

// Numbers of milliseconds as they come from the command line.
struct Numbers {
  long settle_ms = 200;
  long settle_limit_ms = 2'000;
  long retry_limit_ms = 60'000;
  long missing_index_ms = 5'000;
  long recovery_pause_ms = 1'000;
  long recovery_limit_ms = 600'000;
};

void AddOptions(CLI::App& app, Options& options, Numbers& numbers) {
  app.add_option("--socket", options.socket, "socket on which commands are answered");
  app.add_option("--group", options.group, "group that may use the socket, besides root");
  app.add_option("--pid-file", options.pid_file, "file with the process number");
  app.add_option("--settle-ms", numbers.settle_ms, "how long events may lie apart and still keep coming")
      ->check(CLI::Range(0, 60'000));
  app.add_option("--settle-limit-ms", numbers.settle_limit_ms, "how long they are let settle at most")
      ->check(CLI::Range(0, 3'600'000));
  app.add_option("--retry-limit-ms", numbers.retry_limit_ms, "the longest time between two tries of what fails")
      ->check(CLI::Range(250, 3'600'000));
  app.add_option("--missing-index-ms", numbers.missing_index_ms, "how long an index is missing before it is made anew")
      ->check(CLI::Range(0, 3'600'000));
  app.add_option("--recovery-pause-ms", numbers.recovery_pause_ms,
                 "the least time between two comparisons of a whole share whose events get lost")
      ->check(CLI::Range(0, 3'600'000));
  app.add_option("--recovery-limit-ms", numbers.recovery_limit_ms,
                 "the longest time that such a comparison waits, as it does after long ones and after many")
      ->check(CLI::Range(0, 86'400'000));
  app.add_option("--extractions", options.supervisor.extractions, "files that are read at once")
      ->check(CLI::Range(1, 1024));
  app.add_option("--nice", options.supervisor.worker.nice, "nice value of the workers")->check(CLI::Range(0, 19));
}

void Apply(const Numbers& numbers, Options& options) {
  WorkerSettings& worker = options.supervisor.worker;
  worker.settle = std::chrono::milliseconds(numbers.settle_ms);
  worker.settle_limit = std::chrono::milliseconds(numbers.settle_limit_ms);
  worker.retry_limit = std::chrono::milliseconds(numbers.retry_limit_ms);
  worker.recovery_pause = std::chrono::milliseconds(numbers.recovery_pause_ms);
  worker.recovery_limit = std::chrono::milliseconds(numbers.recovery_limit_ms);
  worker.missing_index = std::chrono::milliseconds(numbers.missing_index_ms);
  worker.hands = static_cast<unsigned>(options.supervisor.extractions);
}

// Whoever waits for an answer waits for ever if none comes: callers read on at the end of the stream. One that has not
// been read yet at the end is told so by the kernel, because its connection is reset.
void FinishAnswers(boost::asio::io_context& context, Supervisor& supervisor) {
  using Clock = std::chrono::steady_clock;
  const auto end_of_patience = Clock::now() + kPatienceWithWorkers;
  context.restart();
  while (supervisor.IsAwaited() && Clock::now() < end_of_patience) {
    context.run_one_until(end_of_patience);
  }
  const auto end = Clock::now() + kLastRequests;
  do {
    supervisor.AnswerAll();
  } while (context.poll_one() > 0 && Clock::now() < end);
}

void Serve(const Options& options) {
  const service::PidFile lock(options.pid_file);
  auto context = std::make_unique<boost::asio::io_context>(1);
  Supervisor supervisor(*context, options.supervisor);
  CommandSocket socket(*context, options.socket, [&supervisor](const Json::Value& message, Supervisor::Answer answer) {
    supervisor.Handle(message, std::move(answer));
  });
  const service::StopSignals signals(*context, [&supervisor] { supervisor.Reload(); });
  socket.Open(options.group);
  supervisor.Start();
  Record(LOG_NOTICE, "started").Add("socket", options.socket);
  service::TellReady();
  context->run();
  service::LimitStopping();  // the library waits for a busy search daemon, and cannot be interrupted
  socket.Close();
  supervisor.Stop();
  FinishAnswers(*context, supervisor);
  Record(LOG_NOTICE, "stopped").Add("reason", "asked to");
}

}  // namespace

int RunDaemon(int argc, const char* const* argv) {
  Options options;
  Numbers numbers;
  options.supervisor.extractions = static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
  const service::Program program{"fileindexd", FILEINDEXD_VERSION, "Keeps the indexes of shares current.",
                                 [&](CLI::App& app) { AddOptions(app, options, numbers); },
                                 [&] {
                                   Apply(numbers, options);
                                   Serve(options);
                                 }};
  return service::RunProgram(program, argc, argv);
}

}  // namespace fileindexd
