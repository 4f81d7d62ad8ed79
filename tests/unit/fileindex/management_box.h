// A box on which the management operations run, and the story of what they do to everybody outside.
#pragma once

#include <json/json.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/fake_time.h"
#include "tests/support/indexer_double.h"
#include "tests/support/record_capture.h"
#include "tests/unit/fileindex/config_box.h"

namespace orbisk::fileindex::test {

using Story = std::vector<std::string>;

/// An answer of the search daemon, and how an operation that got it ends.
constexpr char kRefusal[] = R"({"success":false,"error":{"code":600,"msg":"m"}})";
constexpr char kRefused[] = "Error 600 Request failed, msg=m";

/// A ConfigBox with a search daemon that says yes to everything, an indexing daemon, and time that does not pass.
class ManagementBox {
 public:
  ManagementBox();

  ConfigBox& config() { return config_; }
  void AddShare(const std::string& name) { config_.AddShare(name); }
  /// Makes the folders of share paths.
  void MakeFolders(const std::vector<std::string>& share_paths) const;
  std::string Full(const std::string& share_path) const { return config_.Full(share_path); }

  /// What `action` does outside of the library, in order, and last what it throws: "Error 901 Duplicated ID: /photo".
  /// The volume's path is written "V"; what every index is made with is left out.
  ///
  ///     lock folders, unlock folders, save folders, save status     the two files
  ///     event LINE                                                  a line appended to a queue
  ///     search COMMAND DATA                                         a request to the search daemon, as JSON
  ///     daemon TEXT                                                 a command to the indexing daemon
  ///     watch DESCRIPTION, unwatch QUEUE                            the change monitor
  ///     FUNCTION(ARGUMENTS)                                         services, programs, room, homes
  Story StoryOf(const std::function<void()>& action);

  /// All records of the library since the last story began.
  std::vector<std::string> records() const { return log_.texts(); }
  const orbisk::test::RecordCapture& log() const { return log_; }
  orbisk::test::IndexerDouble& daemon() { return daemon_; }

 private:
  void Forget();
  void Note(const std::string& text);
  Story Merge(size_t first_call) const;

  ConfigBox config_;
  const orbisk::test::FakeTime time_;
  orbisk::test::RecordCapture log_;
  mutable std::mutex mutex_;  // guards the notes
  struct Placed {
    size_t calls_before;  // calls of the platform
    std::string text;
  };
  std::vector<Placed> notes_;
  orbisk::test::IndexerDouble daemon_;  // the last: its thread takes notes
};

/// The stories of SetupRelatedServices on a box whose Spotlight answer is not as wanted.
Story ServicesOn();
Story ServicesOff();
/// An event as StoryOf writes it; `data` is JSON text.
std::string EventNote(int type, const std::string& path, const std::string& path_old = "",
                      const std::string& data = "null");
/// The event of FolderAdd: every kind.
std::string EveryKindNote(const std::string& path);
/// The registration of a share at V/SHARE with folders at these share paths, as StoryOf writes it.
std::string WatchNote(const std::string& share, const std::vector<std::string>& share_paths);
std::string UnwatchNote(const std::string& share);
/// Requests and commands as StoryOf writes them.
std::string SearchNote(const std::string& command, const std::string& share);
std::string CreateNote(const std::string& share);
std::string SettingNote(const std::string& share, bool is_upsert);
std::string WorkerNote(const std::string& type, const std::string& share);
std::string RoomNote(const std::string& share);
/// What CleanShareIndexData does of a share at `share_path`, the status file being missing before.
Story CleanNotes(const std::string& share_path);

/// Whether `record` is that of a failed check in index_mgr.cpp, whatever errno was left from before.
void ExpectFailed(const orbisk::test::Record& record, const std::string& function, const std::string& condition,
                  const std::string& reason);

/// Puts `to` in the place of each `from`.
void ReplaceAll(std::string& text, const std::string& from, const std::string& to);

/// The parts one after another.
Story Joined(const std::vector<Story>& parts);

/// A list of folders or of anything else.
Json::Value List(const std::vector<Json::Value>& items);

}  // namespace orbisk::fileindex::test
