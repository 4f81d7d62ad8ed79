// What every daemon does round its own work: command line, log, signals, exit status.
#pragma once

#include <CLI/App.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <functional>

namespace service {

/// Exit statuses.
constexpr int kExitStopped = 0;  ///< asked to stop, and did
constexpr int kExitFailure = 1;  ///< could not start, or ended by an error
constexpr int kExitUsage = 2;    ///< wrong usage

/// A daemon, as RunProgram needs to know it.
struct Program {
  const char* name;     ///< of the program, in the log too
  const char* version;  ///< of the package
  const char* purpose;  ///< one sentence for --help
  /// Adds the daemon's own options. The later of two values of one option counts.
  std::function<void(CLI::App&)> add_options;
  /// Does the work until asked to stop. The command line is parsed and the log is open; SIGPIPE and SIGXFSZ are
  /// ignored. Throws what keeps the daemon from starting, or ended it.
  std::function<void()> run;
};

/// Parses the command line, which besides the daemon's own options has --log-level, --log-stderr, --version and --help,
/// and runs the daemon. Returns the exit status; an exception of `run` goes into a record `failed` and onto standard
/// error.
int RunProgram(const Program& program, int argc, const char* const* argv);

/// Ends the process, with kExitStopped and a record, if it still runs after 800 ms: for work that cannot be interrupted
/// and is done again, or was not promised, when it is cut short. Called when stopping begins.
void LimitStopping();

/// Ends the run of an event loop at SIGTERM or SIGINT. From construction on these signals end nothing else, so one that
/// arrives during a long start is not lost: the loop ends at once when it is run then.
class StopSignals {
 public:
  /// With `on_hangup` SIGHUP calls it, in the event loop; without, SIGHUP is left alone. `context` outlives this.
  explicit StopSignals(boost::asio::io_context& context, std::function<void()> on_hangup = {});

 private:
  void Wait();

  boost::asio::io_context& context_;
  std::function<void()> on_hangup_;
  boost::asio::signal_set signals_;
};

}  // namespace service
