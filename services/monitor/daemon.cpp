// Arguments and the event loop.
#include "services/monitor/daemon.h"

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <map>
#include <stdexcept>
#include <string>

#include "services/base/program.h"
#include "services/base/readiness.h"
#include "services/monitor/control_socket.h"
#include "services/monitor/monitor.h"
#include "services/monitor/options.h"

namespace nimotifyd {
namespace {

// Numbers of milliseconds and mebibytes as they come from the command line.
struct Numbers {
  long gather_ms = 10;
  long content_ms = 5000;
  long poll_seconds = 60;
  size_t memory_mib = 64;
};

void AddOptions(CLI::App& app, Options& options, Numbers& numbers) {
  static const std::map<std::string, BackendChoice> kBackends = {
      {"auto", BackendChoice::kAuto}, {"fanotify", BackendChoice::kFanotify}, {"inotify", BackendChoice::kInotify}};
  app.add_option("--registrations", options.registrations, "folder with one file per registered queue");
  app.add_option("--socket", options.socket, "socket on which registrars poke the monitor");
  app.add_option("--backend", options.backend, "auto, fanotify or inotify")
      ->transform(CLI::CheckedTransformer(kBackends))
      ->option_text("NAME");
  app.add_option("--memory-limit-mib", numbers.memory_mib, "memory for lines of a queue that cannot be written")
      ->check(CLI::Range(1, 65536));
  app.add_option("--gather-ms", numbers.gather_ms, "how long events are gathered while they keep coming")
      ->check(CLI::Range(1, 1000));
  app.add_option("--content-report-ms", numbers.content_ms, "how often a file that stays open for writing is reported")
      ->check(CLI::Range(10, 3'600'000));
  app.add_option("--folder-cache", options.folder_cache_limit, "fanotify: folders whose place is remembered")
      ->check(CLI::Range(16, 100'000'000));
  app.add_flag("--bounded-kernel-queue", options.bounded_kernel_queue,
               "fanotify: leave the kernel's event queue bounded");
  app.add_option("--watch-limit", options.watch_limit, "inotify: watches to use at most; 0: see --watch-reserve");
  app.add_option("--watch-reserve", options.watch_reserve_percent,
                 "inotify: percent of the system's watches left to other programs")
      ->check(CLI::Range(0, 99));
  app.add_option("--poll-seconds", numbers.poll_seconds,
                 "inotify: how often folders without a watch are looked through")
      ->check(CLI::Range(1, 86'400));
}

void Apply(const Numbers& numbers, Options& options) {
  options.gather = std::chrono::milliseconds(numbers.gather_ms);
  options.content_report = std::chrono::milliseconds(numbers.content_ms);
  options.poll_period = std::chrono::seconds(numbers.poll_seconds);
  options.memory_limit_bytes = numbers.memory_mib << 20;
}

void Serve(const Options& options) {
  boost::asio::io_context context(1);
  Monitor monitor(context, options);
  ControlSocket control(context, monitor, options.socket);
  const service::StopSignals signals(context, [&monitor] { monitor.Reload(); });
  control.Open();
  if (!monitor.Start()) {
    throw std::runtime_error("the kernel permits no change reports");
  }
  service::TellReady();
  try {
    context.run();
  } catch (...) {
    monitor.Stop();  // what has happened so far is written all the same
    throw;
  }
  monitor.Stop();
}

}  // namespace

int RunDaemon(int argc, const char* const* argv) {
  Options options;
  Numbers numbers;
  const service::Program program{"nimotifyd", NIMOTIFYD_VERSION,
                                 "Watches the registered folders and appends one line per change to their queue files.",
                                 [&](CLI::App& app) { AddOptions(app, options, numbers); },
                                 [&] {
                                   Apply(numbers, options);
                                   Serve(options);
                                 }};
  return service::RunProgram(program, argc, argv);
}

}  // namespace nimotifyd
