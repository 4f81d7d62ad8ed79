// Arguments, signals and the event loop.
#include "services/extractor/daemon.h"

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include "services/extractor/log.h"
#include "services/extractor/nursery.h"
#include "services/extractor/options.h"
#include "services/extractor/pid_file.h"
#include "services/extractor/server.h"
#include "services/extractor/service.h"

namespace extractor {
namespace {

namespace asio = boost::asio;

struct CommandLine {
  Options options;
  int log_level = LOG_NOTICE;
  bool log_to_stderr = false;
};

// Amounts in the units of the command line.
struct Numbers {
  size_t memory_mib = 512;
  double deadline_seconds = 30;
  double patience_seconds = 10;
};

void AddOptions(CLI::App& app, CommandLine& line, Numbers& numbers) {
  Options& options = line.options;
  static const std::map<std::string, int> kLevels = {
      {"error", LOG_ERR}, {"warning", LOG_WARNING}, {"notice", LOG_NOTICE}, {"info", LOG_INFO}, {"debug", LOG_DEBUG}};
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_version_flag("--version", "nimocontentextractd " NIMOCONTENTEXTRACTD_VERSION);
  app.add_option("--socket", options.socket, "socket that clients ask over");
  app.add_option("--socket-group", options.socket_group, "group that may ask, beside root");
  app.add_option("--pid-file", options.pid_file, "file with the process number");
  app.add_option("--state-dir", options.state_folder, "folder that keeps which contents workers died of")
      ->capture_default_str();
  app.add_option("--memory", numbers.memory_mib, "mebibytes of memory that a worker may have")
      ->check(CLI::Range(32, 65'536));
  app.add_option("--deadline", numbers.deadline_seconds, "seconds that the content of one file may take")
      ->check(CLI::Range(0.05, 3600.0));
  app.add_option("--text-bytes", options.text_bytes, "bytes of text taken from one file")
      ->check(CLI::Range(size_t{1} << 10, size_t{64} << 20));
  app.add_option("--workers", options.workers, "workers at a time; 0: one for each core")->check(CLI::Range(0, 256));
  app.add_option("--files-per-worker", options.files_per_worker, "files after which a worker is replaced")
      ->check(CLI::Range(1, 1'000'000));
  app.add_option("--patience", numbers.patience_seconds, "seconds a client may take to send or take a message")
      ->check(CLI::Range(0.05, 3600.0));
  app.add_option("--log-level", line.log_level, "error, warning, notice, info or debug")
      ->transform(CLI::CheckedTransformer(kLevels))
      ->option_text("LEVEL");
  app.add_flag("--log-stderr", line.log_to_stderr, "write records to standard error as well");
}

std::chrono::milliseconds Milliseconds(double seconds) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

// Nothing if the program is to run; otherwise its exit status.
std::optional<int> Parse(int argc, const char* const* argv, CommandLine& line) {
  CLI::App app("Reads attributes, text and metadata of files for the indexing daemon.", "nimocontentextractd");
  Numbers numbers;
  AddOptions(app, line, numbers);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitStopped : kExitUsage;
  }
  line.options.memory_bytes = numbers.memory_mib << 20;
  line.options.deadline = Milliseconds(numbers.deadline_seconds);
  line.options.patience = Milliseconds(numbers.patience_seconds);
  if (line.options.workers == 0) {
    line.options.workers = std::max(1U, std::thread::hardware_concurrency());
  }
  return std::nullopt;
}

int Serve(const Options& options) {
  asio::io_context context(1);
  asio::signal_set signals(context, SIGTERM, SIGINT);
  const PidFile pid_file(options.pid_file);
  Service service(context, options);
  Server server(context, options, service);
  service.Start();
  server.Open();
  signals.async_wait([&](const boost::system::error_code& error, int) {
    if (!error) {
      context.stop();
    }
  });
  Record(LOG_NOTICE, "started").Add("workers", static_cast<long long>(options.workers)).Add("socket", options.socket);
  context.run();
  service.Stop();
  Record(LOG_NOTICE, "stopped");  // NOLINT(bugprone-unused-raii): is written when it goes
  return kExitStopped;
}

}  // namespace

int RunDaemon(int argc, const char* const* argv, ContentReader& reader) {
  if (argc == 3 && std::string(argv[1]) == kNurseryWord) {
    return RunNursery(reader, std::stoull(argv[2]));
  }
  CommandLine line;
  if (const std::optional<int> status = Parse(argc, argv, line)) {
    return *status;
  }
  OpenLog(line.log_level, line.log_to_stderr);
  signal(SIGPIPE, SIG_IGN);
  try {
    return Serve(line.options);
  } catch (const std::exception& error) {
    Record(LOG_ERR, "not_started").Add("reason", error.what());
    std::cerr << "nimocontentextractd: " << error.what() << '\n';
    return kExitFailure;
  }
}

}  // namespace extractor
