// Arguments and the event loop.
#include "services/extractor/daemon.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <string>
#include <thread>

#include "services/base/log.h"
#include "services/base/pid_file.h"
#include "services/base/program.h"
#include "services/base/readiness.h"
#include "services/extractor/nursery.h"
#include "services/extractor/options.h"
#include "services/extractor/server.h"
#include "services/extractor/service.h"

namespace extractor {

using service::Record;

namespace {

// Amounts in the units of the command line.
struct Numbers {
  size_t memory_mib = 512;
  double deadline_seconds = 30;
  double patience_seconds = 10;
};

void AddOptions(CLI::App& app, Options& options, Numbers& numbers) {
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
}

std::chrono::milliseconds Milliseconds(double seconds) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

void Apply(const Numbers& numbers, Options& options) {
  options.memory_bytes = numbers.memory_mib << 20;
  options.deadline = Milliseconds(numbers.deadline_seconds);
  options.patience = Milliseconds(numbers.patience_seconds);
  if (options.workers == 0) {
    options.workers = std::max(1U, std::thread::hardware_concurrency());
  }
}

void Serve(const Options& options) {
  boost::asio::io_context context(1);
  const service::StopSignals signals(context);
  const service::PidFile pid_file(options.pid_file);
  Service service(context, options);
  Server server(context, options, service);
  service.Start();
  server.Open();
  Record(LOG_NOTICE, "started").Add("workers", static_cast<long long>(options.workers)).Add("socket", options.socket);
  service::TellReady();
  context.run();
  service.Stop();
  Record(LOG_NOTICE, "stopped");  // NOLINT(bugprone-unused-raii): is written when it goes
}

}  // namespace

int RunDaemon(int argc, const char* const* argv, ContentReader& reader) {
  if (argc == 3 && std::string(argv[1]) == kNurseryWord) {
    return RunNursery(reader, std::stoull(argv[2]));
  }
  Options options;
  Numbers numbers;
  const service::Program program{"nimocontentextractd", NIMOCONTENTEXTRACTD_VERSION,
                                 "Reads attributes, text and metadata of files for the indexing daemon.",
                                 [&](CLI::App& app) { AddOptions(app, options, numbers); },
                                 [&] {
                                   Apply(numbers, options);
                                   Serve(options);
                                 }};
  return service::RunProgram(program, argc, argv);
}

}  // namespace extractor
