// Parses, logs, and turns exceptions into exit statuses.
#include "services/base/program.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <utility>

#include "services/base/log.h"

namespace service {
namespace {

constexpr std::chrono::milliseconds kStopLimit{800};

struct LogOptions {
  int level = LOG_NOTICE;
  bool to_stderr = false;
};

void AddLogOptions(CLI::App& app, LogOptions& log) {
  static const std::map<std::string, int> kLevels = {
      {"error", LOG_ERR}, {"warning", LOG_WARNING}, {"notice", LOG_NOTICE}, {"info", LOG_INFO}, {"debug", LOG_DEBUG}};
  app.add_option("--log-level", log.level, "error, warning, notice, info or debug")
      ->transform(CLI::CheckedTransformer(kLevels))
      ->option_text("LEVEL");
  app.add_flag("--log-stderr", log.to_stderr, "write records to standard error as well");
}

}  // namespace

int RunProgram(const Program& program, int argc, const char* const* argv) {
  CLI::App app(program.purpose, program.name);
  LogOptions log;
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_version_flag("--version", std::string(program.name) + " " + program.version);
  program.add_options(app);
  AddLogOptions(app, log);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitStopped : kExitUsage;
  }
  OpenLog(program.name, log.level, log.to_stderr);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);  // a file past a size limit fails with an error like a full disk
  try {
    program.run();
    return kExitStopped;
  } catch (const std::exception& error) {
    Record(LOG_ERR, "failed").Add("reason", error.what());
    std::cerr << program.name << ": " << error.what() << '\n';
    return kExitFailure;
  }
}

void LimitStopping() {
  std::thread watch([] {
    std::this_thread::sleep_for(kStopLimit);
    Record(LOG_NOTICE, "stopped").Add("reason", "work in progress was given up");
    _exit(kExitStopped);
  });
  watch.detach();
}

StopSignals::StopSignals(boost::asio::io_context& context, std::function<void()> on_hangup)
    : context_(context), on_hangup_(std::move(on_hangup)), signals_(context, SIGTERM, SIGINT) {
  if (on_hangup_) {
    signals_.add(SIGHUP);
  }
  Wait();
}

void StopSignals::Wait() {
  signals_.async_wait([this](const boost::system::error_code& error, int number) {
    if (error) {
      return;
    }
    if (number == SIGHUP) {
      on_hangup_();
      Wait();
      return;
    }
    context_.stop();
  });
}

}  // namespace service
