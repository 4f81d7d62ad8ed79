// Arguments and the event loop.
#include "services/search/daemon.h"

#include <malloc.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <filesystem>
#include <string>

#include "services/base/log.h"
#include "services/base/pid_file.h"
#include "services/base/program.h"
#include "services/base/readiness.h"
#include "services/search/catalog.h"
#include "services/search/dispatcher.h"
#include "services/search/maintenance.h"
#include "services/search/server.h"

namespace nimoelasticd {

using service::Record;

namespace {

struct Options {
  std::string state_dir = "/var/lib/nimoelasticd";
  ServerOptions server;
  DispatcherLimits limits;
  search::OpenOptions index;
  std::chrono::milliseconds quiet{30'000};
};

// Numbers as they come from the command line.
struct Numbers {
  size_t memory_mib = 512;
  std::int64_t cache_mib = search::OpenOptions().cache_bytes >> 20;
  std::int64_t batch_mib = search::OpenOptions().batch_bytes >> 20;
  std::int64_t document_mib = search::OpenOptions().max_document_bytes >> 20;
  size_t answer_mib = kMaxMessageBytes >> 20;
  long patience_ms = 30'000;
  long quiet_ms = 30'000;
};

void AddOptions(CLI::App& app, Options& options, Numbers& numbers) {
  app.add_option("--socket", options.server.socket, "socket on which requests are answered");
  app.add_option("--group", options.server.group, "group that may use the socket, besides root");
  app.add_option("--state-dir", options.state_dir, "folder with the list of indexes");
  app.add_option("--memory-limit-mib", numbers.memory_mib, "memory for requests and answers; over it: error 1401")
      ->check(CLI::Range(1, 65536));
  app.add_option("--answer-limit-mib", numbers.answer_mib, "a longer answer is refused: error 1207")
      ->check(CLI::Range(size_t{1}, size_t{kMaxMessageBytes >> 20}));
  app.add_option("--max-waiting", options.limits.max_waiting,
                 "changes, and questions, that wait or are worked on; over it: error 1400")
      ->check(CLI::Range(1, 100'000));
  app.add_option("--max-connections", options.server.max_connections, "connections at once")
      ->check(CLI::Range(2, 100'000));
  app.add_option("--client-timeout-ms", numbers.patience_ms, "patience with clients that neither send nor take")
      ->check(CLI::Range(10, 3'600'000));
  app.add_option("--quiet-ms", numbers.quiet_ms, "how long an index is left alone before it is tidied up")
      ->check(CLI::Range(10, 86'400'000));
  app.add_option("--writers", options.limits.writer_threads, "indexes that are changed at once")
      ->check(CLI::Range(1, 256));
  app.add_option("--readers", options.limits.reader_threads, "questions that are answered at once")
      ->check(CLI::Range(1, 256));
  app.add_option("--cache-mib", numbers.cache_mib, "cache of each connection to a database")
      ->check(CLI::Range(1, 65536));
  app.add_option("--batch-mib", numbers.batch_mib, "memory of each index for words not yet in its file")
      ->check(CLI::Range(1, 65536));
  app.add_option("--document-limit-mib", numbers.document_mib, "a larger document is refused")
      ->check(CLI::Range(1, 1024));
}

void Apply(const Numbers& numbers, Options& options) {
  options.server.max_memory_bytes = numbers.memory_mib << 20;
  options.limits.max_answer_bytes = numbers.answer_mib << 20;
  options.server.patience = std::chrono::milliseconds(numbers.patience_ms);
  options.quiet = std::chrono::milliseconds(numbers.quiet_ms);
  options.index.cache_bytes = numbers.cache_mib << 20;
  options.index.batch_bytes = numbers.batch_mib << 20;
  options.index.max_document_bytes = numbers.document_mib << 20;
}

void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// Large texts come and go on several threads. What malloc keeps of them for the next one would be most of the memory
// that the daemon holds, so they are mapped and unmapped; once a limit is set, malloc no longer raises it by itself.
void LimitKeptMemory() {
  constexpr int kMapFrom = 256 << 10;
  constexpr int kArenas = 2;
  mallopt(M_MMAP_THRESHOLD, kMapFrom);
  mallopt(M_ARENA_MAX, kArenas);
}

// The workers call what goes before the dispatcher does, so they end first, however serving ends.
class Workers {
 public:
  explicit Workers(Dispatcher& dispatcher) : dispatcher_(dispatcher) { dispatcher_.Start(); }
  ~Workers() { dispatcher_.Stop(); }
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

 private:
  Dispatcher& dispatcher_;
};

void Serve(const Options& options) {
  std::filesystem::create_directories(options.state_dir);
  const service::PidFile lock(options.state_dir + "/lock");
  Catalog catalog(options.state_dir + "/indexes.json", options.index);
  boost::asio::io_context context(1);
  const service::StopSignals signals(context);
  Dispatcher dispatcher(catalog, options.limits);
  Maintenance maintenance(context, dispatcher, options.quiet);
  dispatcher.OnCommit([&maintenance](const std::string& id) { maintenance.NoteCommit(id); });
  Server server(context, dispatcher, options.server);
  server.Open();  // whoever connects waits; and without a socket no index is touched
  const Workers workers(dispatcher);
  Record(LOG_NOTICE, "started").Add("indexes", static_cast<long long>(catalog.All().size()));
  service::TellReady();
  context.run();
  service::LimitStopping();  // a search or a deletion in work cannot be interrupted
  server.Close();
  dispatcher.Stop();
  catalog.CloseAll();
  Record(LOG_NOTICE, "stopped").Add("reason", "asked to");
}

}  // namespace

int RunDaemon(int argc, const char* const* argv) {
  Options options;
  Numbers numbers;
  const service::Program program{"nimoelasticd", NIMOELASTICD_VERSION,
                                 "Holds the full-text indexes and answers requests for them.",
                                 [&](CLI::App& app) { AddOptions(app, options, numbers); },
                                 [&] {
                                   Apply(numbers, options);
                                   LimitKeptMemory();
                                   RaiseDescriptorLimit();
                                   Serve(options);
                                 }};
  return service::RunProgram(program, argc, argv);
}

}  // namespace nimoelasticd
