// Arguments, signals and the event loop.
#include "services/monitor/daemon.h"

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <iostream>
#include <map>
#include <optional>
#include <string>

#include "services/monitor/control_socket.h"
#include "services/monitor/log.h"
#include "services/monitor/monitor.h"
#include "services/monitor/options.h"

namespace nimotifyd {
namespace {

namespace asio = boost::asio;

struct CommandLine {
  Options options;
  int log_level = LOG_NOTICE;
  bool log_to_stderr = false;
};

// Numbers of milliseconds and mebibytes as they come from the command line.
struct Numbers {
  long gather_ms = 10;
  long content_ms = 5000;
  long poll_seconds = 60;
  size_t memory_mib = 64;
};

void AddOptions(CLI::App& app, CommandLine& line, Numbers& numbers) {
  Options& options = line.options;
  static const std::map<std::string, int> kLevels = {
      {"error", LOG_ERR}, {"warning", LOG_WARNING}, {"notice", LOG_NOTICE}, {"info", LOG_INFO}, {"debug", LOG_DEBUG}};
  static const std::map<std::string, BackendChoice> kBackends = {
      {"auto", BackendChoice::kAuto}, {"fanotify", BackendChoice::kFanotify}, {"inotify", BackendChoice::kInotify}};
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_version_flag("--version", "nimotifyd " NIMOTIFYD_VERSION);
  app.add_option("--registrations", options.registrations, "folder with one file per registered queue");
  app.add_option("--socket", options.socket, "socket on which registrars poke the monitor");
  app.add_option("--backend", options.backend, "auto, fanotify or inotify")
      ->transform(CLI::CheckedTransformer(kBackends))
      ->option_text("NAME");
  app.add_option("--log-level", line.log_level, "error, warning, notice, info or debug")
      ->transform(CLI::CheckedTransformer(kLevels))
      ->option_text("LEVEL");
  app.add_flag("--log-stderr", line.log_to_stderr, "write records to standard error as well");
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

// Nothing if the program is to run; otherwise its exit status.
std::optional<int> Parse(int argc, const char* const* argv, CommandLine& line) {
  CLI::App app("Watches the registered folders and appends one line per change to their queue files.", "nimotifyd");
  Numbers numbers;
  AddOptions(app, line, numbers);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitStopped : kExitUsage;
  }
  line.options.gather = std::chrono::milliseconds(numbers.gather_ms);
  line.options.content_report = std::chrono::milliseconds(numbers.content_ms);
  line.options.poll_period = std::chrono::seconds(numbers.poll_seconds);
  line.options.memory_limit_bytes = numbers.memory_mib << 20;
  return std::nullopt;
}

void OnSignals(asio::signal_set& signals, asio::io_context& context, Monitor& monitor) {
  signals.async_wait([&](const boost::system::error_code& error, int number) {
    if (error) {
      return;
    }
    if (number == SIGHUP) {
      monitor.Reload();
      OnSignals(signals, context, monitor);
      return;
    }
    monitor.Stop();
    context.stop();
  });
}

}  // namespace

int RunDaemon(int argc, const char* const* argv) {
  CommandLine line;
  if (const std::optional<int> status = Parse(argc, argv, line)) {
    return *status;
  }
  OpenLog(line.log_level, line.log_to_stderr);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);  // a queue past a file size limit fails with an error like a full disk

  asio::io_context context(1);
  Monitor monitor(context, line.options);
  ControlSocket control(context, monitor, line.options.socket);
  asio::signal_set signals(context, SIGTERM, SIGINT, SIGHUP);
  if (!control.Open()) {
    std::cerr << "nimotifyd: cannot listen on " << line.options.socket << " (is another one running?)\n";
    return kExitFailure;
  }
  if (!monitor.Start()) {
    std::cerr << "nimotifyd: the kernel permits no change reports\n";
    return kExitFailure;
  }
  OnSignals(signals, context, monitor);
  context.run();
  return kExitStopped;
}

}  // namespace nimotifyd
