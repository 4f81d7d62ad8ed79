// Arguments, signals and the event loop.
#include "services/search/daemon.h"

#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include "services/search/catalog.h"
#include "services/search/dispatcher.h"
#include "services/search/log.h"
#include "services/search/maintenance.h"
#include "services/search/server.h"
#include "services/search/state_lock.h"

namespace nimoelasticd {
namespace {

namespace asio = boost::asio;

// Stopping may take this long; then the process ends as it is, which loses no more than what is not committed anyway.
constexpr std::chrono::milliseconds kStopLimit{800};

struct CommandLine {
  std::string state_dir = "/var/lib/nimoelasticd";
  ServerOptions server;
  DispatcherLimits limits;
  search::OpenOptions index;
  std::chrono::milliseconds quiet{30'000};
  int log_level = LOG_NOTICE;
  bool log_to_stderr = false;
};

// Numbers as they come from the command line.
struct Numbers {
  size_t memory_mib = 512;
  std::int64_t cache_mib = 32;
  std::int64_t batch_mib = 16;
  std::int64_t document_mib = 64;
  long patience_ms = 30'000;
  long quiet_ms = 30'000;
};

void AddOptions(CLI::App& app, CommandLine& line, Numbers& numbers) {
  static const std::map<std::string, int> kLevels = {
      {"error", LOG_ERR}, {"warning", LOG_WARNING}, {"notice", LOG_NOTICE}, {"info", LOG_INFO}, {"debug", LOG_DEBUG}};
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_version_flag("--version", "nimoelasticd " NIMOELASTICD_VERSION);
  app.add_option("--socket", line.server.socket, "socket on which requests are answered");
  app.add_option("--group", line.server.group, "group that may use the socket, besides root");
  app.add_option("--state-dir", line.state_dir, "folder with the list of indexes");
  app.add_option("--log-level", line.log_level, "error, warning, notice, info or debug")
      ->transform(CLI::CheckedTransformer(kLevels))
      ->option_text("LEVEL");
  app.add_flag("--log-stderr", line.log_to_stderr, "write records to standard error as well");
  app.add_option("--memory-limit-mib", numbers.memory_mib, "memory for requests and answers; over it: error 1401")
      ->check(CLI::Range(1, 65536));
  app.add_option("--max-waiting", line.limits.max_waiting,
                 "changes, and questions, that wait or are worked on; over it: error 1400")
      ->check(CLI::Range(1, 100'000));
  app.add_option("--max-connections", line.server.max_connections, "connections at once")
      ->check(CLI::Range(2, 100'000));
  app.add_option("--client-timeout-ms", numbers.patience_ms, "patience with clients that neither send nor take")
      ->check(CLI::Range(10, 3'600'000));
  app.add_option("--quiet-ms", numbers.quiet_ms, "how long an index is left alone before it is tidied up")
      ->check(CLI::Range(10, 86'400'000));
  app.add_option("--writers", line.limits.writer_threads, "indexes that are changed at once")
      ->check(CLI::Range(1, 256));
  app.add_option("--readers", line.limits.reader_threads, "questions that are answered at once")
      ->check(CLI::Range(1, 256));
  app.add_option("--cache-mib", numbers.cache_mib, "database cache of each index")->check(CLI::Range(1, 65536));
  app.add_option("--batch-mib", numbers.batch_mib, "memory of each index for words not yet in its file")
      ->check(CLI::Range(1, 65536));
  app.add_option("--document-limit-mib", numbers.document_mib, "a larger document is refused")
      ->check(CLI::Range(1, 1024));
}

// Nothing if the program is to run; otherwise its exit status.
std::optional<int> Parse(int argc, const char* const* argv, CommandLine& line) {
  CLI::App app("Holds the full-text indexes and answers requests for them.", "nimoelasticd");
  Numbers numbers;
  AddOptions(app, line, numbers);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitStopped : kExitUsage;
  }
  line.server.max_memory_bytes = numbers.memory_mib << 20;
  line.server.patience = std::chrono::milliseconds(numbers.patience_ms);
  line.quiet = std::chrono::milliseconds(numbers.quiet_ms);
  line.index.cache_bytes = numbers.cache_mib << 20;
  line.index.batch_bytes = numbers.batch_mib << 20;
  line.index.max_document_bytes = numbers.document_mib << 20;
  return std::nullopt;
}

void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// Ends the process if stopping takes too long: a search or a deletion in work cannot be interrupted.
void LimitStopping() {
  std::thread watch([] {
    std::this_thread::sleep_for(kStopLimit);
    Record(LOG_NOTICE, "stopped").Add("reason", "work in progress was given up");
    _exit(kExitStopped);
  });
  watch.detach();
}

int Serve(const CommandLine& line) {
  const StateLock lock(line.state_dir);
  Catalog catalog(line.state_dir + "/indexes.json", line.index);
  asio::io_context context(1);
  asio::signal_set signals(context, SIGTERM, SIGINT);
  Dispatcher dispatcher(catalog, line.limits);
  Maintenance maintenance(context, dispatcher, line.quiet);
  dispatcher.OnCommit([&maintenance](const std::string& id) { maintenance.NoteCommit(id); });
  Server server(context, dispatcher, line.server);
  dispatcher.Start();
  if (!server.Open()) {
    std::cerr << "nimoelasticd: cannot listen on " << line.server.socket << "\n";
    return kExitFailure;
  }
  signals.async_wait([&](const boost::system::error_code& error, int) {
    if (!error) {
      context.stop();
    }
  });
  Record(LOG_NOTICE, "started").Add("indexes", static_cast<long long>(catalog.All().size()));
  context.run();
  LimitStopping();
  server.Close();
  dispatcher.Stop();
  catalog.CloseAll();
  Record(LOG_NOTICE, "stopped").Add("reason", "asked to");
  return kExitStopped;
}

}  // namespace

int RunDaemon(int argc, const char* const* argv) {
  CommandLine line;
  if (const std::optional<int> status = Parse(argc, argv, line)) {
    return *status;
  }
  OpenLog(line.log_level, line.log_to_stderr);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);  // a database past a file size limit fails with an error like a full disk
  RaiseDescriptorLimit();
  try {
    return Serve(line);
  } catch (const std::exception& error) {
    Record(LOG_ERR, "not_started").Add("reason", error.what());
    std::cerr << "nimoelasticd: " << error.what() << "\n";
    return kExitFailure;
  }
}

}  // namespace nimoelasticd
