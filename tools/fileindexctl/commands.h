// The groups of commands. Each stands in one file; a new group is one more function here and its call in program.cpp.
#pragma once

#include <CLI/App.hpp>
#include <exception>

namespace fileindexctl {

/// Thrown by a command that asked a question, and has printed the answer, which is no: exit status 1 without a message.
class AnswerIsNo : public std::exception {};

// A group's commands run while the arguments are parsed. They throw std::exception, its text for the user, to fail.

/// "daemon" and "failures": what the indexing daemon does.
void AddDaemonCommands(CLI::App& app);

/// "event": events of one's own.
void AddEventCommands(CLI::App& app);

/// "extract": what the extractor sees in a file.
void AddExtractCommand(CLI::App& app);

/// "folder": the indexed folders.
void AddFolderCommands(CLI::App& app);

/// The commands of "folder" that change something.
void AddFolderChanges(CLI::App& group);

/// "index": the indexes of the search daemon.
void AddIndexCommands(CLI::App& app);

/// "path": what the library thinks of a path.
void AddPathCommands(CLI::App& app);

/// "pause", "resume" and "status": whether indexing runs.
void AddPauseCommands(CLI::App& app);

/// The "pause" and "resume" of these, which are found below "daemon" as well.
void AddPauseAndResume(CLI::App& app);

/// "search" and "suggest": people's questions to the index.
void AddSearchCommands(CLI::App& app);

/// "share": the shares of this machine.
void AddShareCommands(CLI::App& app);

/// The commands of "share" for when something became of one.
void AddShareOperations(CLI::App& group);

/// "summary": how far indexing is.
void AddSummaryCommand(CLI::App& app);

/// "volume", "home", "user" and "services": for when something became of them.
void AddVolumeCommands(CLI::App& app);

/// "queue": what is in a queue file.
void AddQueueCommands(CLI::App& app);

/// "monitor": which folders the change monitor watches for which queue file.
void AddMonitorCommands(CLI::App& app);

}  // namespace fileindexctl
