// Arguments, exit statuses and the last line on standard error.
#include "tools/fileindexctl/program.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <sstream>
#include <string>

#include "orbisk/error.h"
#include "tools/fileindexctl/arguments.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/error_text.h"
#include "tools/fileindexctl/event_text.h"
#include "tools/fileindexctl/output.h"

namespace fileindexctl {
namespace {

constexpr int kFailure = 1;
constexpr int kWrongUsage = 2;

int Fail(const std::string& reason) {
  fprintf(stderr, "fileindexctl: %s\n", OneLine(reason).c_str());
  return kFailure;
}

// Asking for help comes here as well, and is none.
int Refuse(const CLI::App& app, const CLI::ParseError& error) {
  std::ostringstream help;  // not std::cout, which would take no notice of a full disk
  const int status = app.exit(error, help);
  Output out(STDOUT_FILENO);
  out.Write(help.str());
  out.Flush();
  return status == 0 ? 0 : kWrongUsage;
}

int ParseAndRun(CLI::App& app, int argc, const char* const* argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::RequiredError& error) {
    // The parser looks for what is missing before it looks at what is too much.
    const std::string unknown = UnknownCommand(app);
    return Refuse(app, unknown.empty()
                           ? error
                           : CLI::RequiredError("No such command: " + unknown, CLI::ExitCodes::RequiredError));
  } catch (const CLI::ParseError& error) {
    return Refuse(app, error);
  }
  return 0;
}

}  // namespace

int Run(int argc, const char* const* argv) {
  CLI::App app("Looks after the full-text file index of this machine.", "fileindexctl");
  app.set_version_flag("--version", "fileindexctl " FILEINDEXCTL_VERSION);
  app.require_subcommand(1);
  app.footer("'fileindexctl GROUP COMMAND --help' explains a command.");
  AddDaemonCommands(app);
  AddEventCommands(app);
  AddExtractCommand(app);
  AddFolderCommands(app);
  AddIndexCommands(app);
  AddMonitorCommands(app);
  AddPathCommands(app);
  AddPauseCommands(app);
  AddQueueCommands(app);
  AddSearchCommands(app);
  AddShareCommands(app);
  AddSummaryCommand(app);
  AddVolumeCommands(app);
  try {
    return ParseAndRun(app, argc, argv);
  } catch (const ReaderGone&) {
    return 0;
  } catch (const AnswerIsNo&) {
    return kFailure;
  } catch (const orbisk::Error& error) {
    return Fail(ErrorLine(error));
  } catch (const std::exception& error) {
    return Fail(error.what());
  }
}

}  // namespace fileindexctl
