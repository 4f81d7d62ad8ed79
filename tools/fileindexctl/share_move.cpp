// Giving a share another name: the steps, and the way back.
#include "tools/fileindexctl/share_move.h"

#include <fcntl.h>
#include <json/json.h>
#include <limits.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "nimo/index_location.h"
#include "nimo/share_registry.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/json.h"
#include "orbisk/sdk/share.h"
#include "tools/fileindexctl/daemon_client.h"
#include "tools/fileindexctl/error_text.h"
#include "tools/fileindexctl/share_journal.h"

namespace fileindexctl {
namespace {

namespace index = orbisk::fileindex;
namespace fs = std::filesystem;
using NIMO::SHARE::Entry;

std::string TextOf(const std::exception& error) {
  const auto* const of_library = dynamic_cast<const orbisk::Error*>(&error);
  return of_library != nullptr ? ErrorLine(*of_library) : error.what();
}

const Entry* Find(const std::vector<Entry>& shares, const std::string& name) {
  const auto found = std::find_if(shares.begin(), shares.end(), [&](const Entry& share) { return share.name == name; });
  return found != shares.end() ? &*found : nullptr;
}

ino_t FolderAt(const std::string& path) {
  struct stat attributes {};
  return lstat(path.c_str(), &attributes) == 0 && S_ISDIR(attributes.st_mode) ? attributes.st_ino : 0;
}

std::string QueueOf(const std::string& share_path) {
  std::array<char, PATH_MAX> queue{};
  if (FILEIDXQueuePathCompose(share_path.c_str(), queue.data(), queue.size()) < 0) {
    throw std::runtime_error("no queue can be named for " + share_path);
  }
  return queue.data();
}

// Folder

void SyncFolder(const std::string& path) {
  const int folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder >= 0) {
    fsync(folder);
    close(folder);
  }
}

// Some file systems cannot promise to replace nothing; an empty folder might be replaced there.
void RenameFolder(const std::string& from, const std::string& to, ino_t folder) {
  if (FolderAt(to) == folder) {
    return;
  }
  if (FolderAt(from) != folder) {
    throw std::runtime_error("the share's folder is neither at " + from + " nor at " + to);
  }
  int result = renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
  if (result != 0 && errno == EINVAL) {
    errno = EEXIST;
    result = FolderAt(to) != 0 ? -1 : rename(from.c_str(), to.c_str());
  }
  if (result != 0) {
    throw std::runtime_error(from + " to " + to + ": " + strerror(errno));
  }
  SyncFolder(fs::path(to).parent_path());
}

void RenameEntry(const std::string& from, const std::string& to, const std::string& path_to) {
  const std::vector<Entry> shares = NIMO::SHARE::List();
  const Entry* const entry = Find(shares, from);
  const Entry* const present = Find(shares, to);
  if (entry == nullptr && present != nullptr && present->path == path_to) {
    return;
  }
  if (entry == nullptr) {
    throw std::runtime_error("no such share: " + from);
  }
  Entry renamed = *entry;
  renamed.name = to;
  renamed.path = path_to;
  NIMO::SHARE::Replace(from, renamed);
}

void MoveIfThere(const std::string& from, const std::string& to) {
  if (fs::is_regular_file(from)) {
    fs::rename(from, to);
  }
}

// What waits in the queue is about the old path, and the rename event that will stand behind it carries it along.
void CarryQueue(const std::string& path_from, const std::string& path_to) {
  const std::string from = QueueOf(path_from);
  const std::string to = QueueOf(path_to);
  fs::create_directories(fs::path(to).parent_path());
  MoveIfThere(from + ".tmp", to + ".tmp");
  MoveIfThere(from, to);
  MoveIfThere(from + ".failures", to + ".failures");
  // The daemon's note of what the index was filled by. It drops it for a share that it was told to pause, but not for
  // one that was paused with its volume. At the new place it looks through everything without one.
  fs::remove(from + ".mark");
  fs::remove(from + ".mark.new");
}

// Steps

void Pause(const ShareMove& move) {
  if (move.resume) {
    index::SharePause(move.from);
  }
}

void PauseBack(const ShareMove& move) {
  if (move.resume) {
    index::ShareResume(move.from);
  }
}

void Place(const ShareMove& move) {
  RenameFolder(move.path_from, move.path_to, move.folder);
  RenameEntry(move.from, move.to, move.path_to);
}

// The registry takes no share whose folder is not there.
void PlaceBack(const ShareMove& move) {
  RenameFolder(move.path_to, move.path_from, move.folder);
  RenameEntry(move.to, move.from, move.path_from);
}

void Carry(const ShareMove& move) {
  CarryQueue(move.path_from, move.path_to);
}

void CarryBack(const ShareMove& move) {
  CarryQueue(move.path_to, move.path_from);
}

void SetShare(const std::string& from, const std::string& to) {
  const index::FolderMgr folder_mgr;
  bool changed = false;
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (folder->GetShare() == from) {
      folder->SetShare(to);
      changed = true;
    }
  }
  if (changed) {
    folder_mgr.Save();
  }
}

bool IsRenameQueued(const ShareMove& move) {
  std::ifstream queue(QueueOf(move.path_to));
  for (std::string line; std::getline(queue, line);) {
    Json::Value event;
    if (orbisk::fromString(event, line) && event.isObject() && event["event"] == index::EVENT_RENAME &&
        event["path"] == move.path_to && event["path_old"] == move.path_from) {
      return true;
    }
  }
  return false;
}

bool HasIndexFollowed(const ShareMove& move) {
  return !HasIndex(move.from) && HasIndex(move.to);
}

void Follow(const ShareMove& move) {
  if (!move.indexed) {
    return;
  }
  if (!HasIndexFollowed(move)) {
    try {
      index::ShareRename(move.from, move.to);
      return;
    } catch (const orbisk::Error&) {
      if (!HasIndexFollowed(move)) {
        throw;
      }
    }
  }
  // A call that was killed has asked for it, perhaps just now.
  SetShare(move.from, move.to);
  if (!IsRenameQueued(move)) {
    index::AddCustomEvent(index::EVENT_RENAME, move.path_to, move.path_from, Json::Value());
  }
}

void FollowBack(const ShareMove& move) {
  if (!move.indexed) {
    return;
  }
  SetShare(move.to, move.from);
  if (HasIndexFollowed(move)) {
    std::array<char, PATH_MAX> database{};
    if (FILEIDXDBPathCompose(move.path_from.c_str(), database.data(), database.size()) < 0) {
      throw std::runtime_error("no place for the index can be named for " + move.path_from);
    }
    index::elastic::ShareIndexRename(move.to, move.from, database.data());
  }
}

void Resume(const ShareMove& move) {
  if (move.resume) {
    index::ShareResume(move.to);
  }
}

struct Step {
  const char* what;
  void (*forward)(const ShareMove&);
  void (*back)(const ShareMove&);  // null: from here on there is only the way forward
};

constexpr std::array<Step, 5> kSteps = {{
    {"pause the share", Pause, PauseBack},
    {"rename the folder and its entry", Place, PlaceBack},
    {"move the queue", Carry, CarryBack},
    {"rename the index", Follow, FollowBack},
    {"resume the share", Resume, nullptr},
}};

std::string AgainText(const ShareMove& move) {
  return "; 'fileindexctl share move-name " + move.from + " " + move.to + "' goes on";
}

// Nothing is left there, unless somebody keeps something of his own in it.
void RemoveIndexFolder(const std::string& share_path) {
  rmdir(fs::path(QueueOf(share_path)).parent_path().c_str());
}

// Undoes the step that `move` is in, and those before it. Why that ended, empty if it did not; `move` tells where.
std::string GoBack(ShareMove& move) {
  for (size_t steps = move.step + 1; steps > 0; --steps) {
    move.step = steps - 1;
    try {
      ShareJournal::Write(move);
      kSteps[move.step].back(move);
    } catch (const std::exception& error) {
      return TextOf(error);
    }
  }
  return "";
}

[[noreturn]] void Undo(ShareMove move, const std::string& reason) {
  const std::string text = std::string("cannot ") + kSteps[move.step].what + ": " + reason + "; ";
  const std::string trouble = GoBack(move);
  if (!trouble.empty()) {
    throw std::runtime_error(text + "the way back ended at the step '" + kSteps[move.step].what + "': " + trouble +
                             AgainText(move));
  }
  RemoveIndexFolder(move.path_to);
  ShareJournal::Remove();
  throw std::runtime_error(text + "all is as it was");
}

[[noreturn]] void StayPaused(const ShareMove& move, const std::string& reason) {
  throw std::runtime_error("the share has its new name, but is paused: " + reason + AgainText(move));
}

void Run(ShareMove move) {
  for (size_t i = move.step; i < kSteps.size(); ++i) {
    move.step = i;
    try {
      ShareJournal::Write(move);
    } catch (const std::exception& error) {
      throw std::runtime_error(error.what() + (ShareJournal::IsThere() ? AgainText(move) : std::string()));
    }
    try {
      kSteps[i].forward(move);
    } catch (const std::exception& error) {
      if (kSteps[i].back == nullptr) {
        StayPaused(move, TextOf(error));
      }
      Undo(move, TextOf(error));
    }
  }
  RemoveIndexFolder(move.path_from);
  ShareJournal::Remove();
}

// What is above the share's folder.
bool HasComponent(const fs::path& path, const std::string& name) {
  return std::any_of(path.begin(), path.end(), [&](const fs::path& component) { return component == name; });
}

void RequireFreeName(const std::vector<Entry>& shares, const ShareMove& move) {
  if (Find(shares, move.to) != nullptr) {
    throw std::runtime_error("there is a share " + move.to + " already");
  }
  if (fs::exists(fs::symlink_status(move.path_to))) {
    throw std::runtime_error(move.path_to + ": there is something already");
  }
  if (index::FolderMgr().IsShareIndexed(move.to)) {
    throw std::runtime_error("folders of a share " + move.to + " are configured already");
  }
}

// Who resumes a share resumes all of its folders.
void RequireNothingPausedAlone(const ShareMove& move, const std::string& paused_folder) {
  if (move.resume && !paused_folder.empty()) {
    throw std::runtime_error("the folder " + paused_folder +
                             " is paused while others of the share are not, and would be resumed; 'fileindexctl share "
                             "pause " +
                             move.from + "' or 'share resume " + move.from + "' before makes them alike");
  }
}

// What would come to nothing halfway.
void RequireIndexThatCanFollow(const ShareMove& move) {
  if (!orbisk::sdk::SDKShare(move.from).CanBeIndexed()) {
    throw std::runtime_error("the share is locked or read-only, so its index cannot follow");
  }
  if (HasComponent(fs::path(move.path_to).parent_path(), move.to)) {
    throw std::runtime_error("a folder above the share is called " + move.to +
                             ", too; its documents would not be found");
  }
  if (!HasIndex(move.from)) {
    throw std::runtime_error("the share's index is missing; 'fileindexctl share rebuild " + move.from +
                             "' makes a new one");
  }
  if (move.resume) {
    AskIndexer("status");
  }
}

ShareMove Plan(const std::string& from, const std::string& to) {
  const std::vector<Entry> shares = NIMO::SHARE::List();
  const Entry* const entry = Find(shares, from);
  if (entry == nullptr) {
    throw std::runtime_error("no such share: " + from);
  }
  ShareMove move;
  move.from = from;
  move.to = to;
  move.path_from = entry->path;
  move.path_to = fs::path(entry->path).parent_path() / to;
  move.folder = FolderAt(move.path_from);
  if (move.folder == 0) {
    throw std::runtime_error(move.path_from + ": not a folder");
  }
  RequireFreeName(shares, move);
  const index::FolderMgr folder_mgr;
  std::string paused_folder;
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (folder->GetShare() != from) {
      continue;
    }
    move.indexed = true;
    if (folder->IsPaused()) {
      paused_folder = folder->GetPath();
    } else {
      move.resume = true;
    }
  }
  RequireNothingPausedAlone(move, paused_folder);
  if (move.indexed) {
    RequireIndexThatCanFollow(move);
  }
  return move;
}

}  // namespace

void MoveShareName(const std::string& from, const std::string& to) {
  const ShareJournal journal;
  const std::optional<ShareMove> interrupted = ShareJournal::Read();
  if (!interrupted) {
    Run(Plan(from, to));
    return;
  }
  if (interrupted->from != from || interrupted->to != to) {
    throw std::runtime_error("another renaming was interrupted" + AgainText(*interrupted) + " with it");
  }
  Run(*interrupted);
}

}  // namespace fileindexctl
