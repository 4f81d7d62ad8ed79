// An index as the daemon holds it: open or not, and in whose hands.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "services/search/event_handler.h"
#include "services/search/index.h"

namespace nimoelasticd {

enum class State {
  kOpening,    ///< 606
  kMoving,     ///< 606
  kUpgrading,  ///< 607
  kOpen,
  kPaused,     ///< 608
  kRepairing,  ///< 609
  kAbsent,     ///< its files are not there, or cannot be opened now; requests try again
  kNewer,      ///< of a later daemon, 606: asked again until that one is back
  kDamaged,    ///< and not to be repaired
  kGone,       ///< deleted
};

/// Whether requests that need an open index are to be asked again after a while.
constexpr bool WillOpenSoon(State state) {
  return state == State::kOpening || state == State::kMoving || state == State::kUpgrading ||
         state == State::kRepairing;
}

/// For people and programs: "open", "paused" and so on.
const char* NameOf(State state);

/// One index with its state. Documents are reached through a Use, and the files are closed only when there is none.
///
/// Threads: any; the functions that change the state exclude each other by AdminLock, which their callers hold.
class HostedIndex {
 public:
  /// A right to call the open index. It is not held for longer than one call takes.
  class Use {
   public:
    enum class For {
      kAsking,    ///< about the last commit; also while the index is being repaired, if it can be read at all
      kReading,   ///< about what is not committed, too
      kChanging,  ///< or committing
    };
    /// Throws Refusal if it is not open.
    explicit Use(HostedIndex& host, For purpose = For::kReading);
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    search::Index* operator->() const { return index_; }

   private:
    HostedIndex& host_;
    search::Index* index_;
  };

  HostedIndex(std::string path, State state, search::OpenOptions options);

  State state() const;
  std::string path() const;
  std::mutex& AdminLock() { return admin_; }

  /// Whether questions about the last commit are answered.
  bool Answers() const;

  /// Refuses (Refusal) with what the state asks for; returns if it is open.
  void RequireOpen() const;

  /// Makes the files of a new index. Throws search::Error; then nothing is there.
  void Create(const Json::Value& mappings, const Json::Value& settings);
  /// Opens the files, upgrading or repairing them if that is needed. The state tells what came of it. Records why.
  void Open();
  /// Whether a request may have an index in the state kAbsent opened again. Not for a minute after a repair or an
  /// upgrade failed: these take long, and each request would begin them anew.
  bool MayTryAgain(std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now()) const;
  /// For an open index that turned out to be damaged: from now on requests are told that it is being repaired. True if
  /// the caller is the one who has to see to that.
  bool MarkDamaged();
  /// Repairs the files of a damaged index, and opens them.
  void Repair();
  /// Whether changes that were answered with success are gone without a commit, because of damage or because a daemon
  /// ended before it; says so once.
  bool TakeLostChanges();
  /// Everything so far is committed.
  void NoteCommitted();
  /// The names of all files of an index that is not open: the database's, and what is remembered beside it.
  static std::vector<std::string> FilesToMove();
  /// Removes the files of an index that is not open. Throws search::Error.
  static void RemoveFiles(const std::string& path);
  /// Refuses further use with `next`, waits for those who have one, closes the files. With `commit`, what is not
  /// committed is; if that fails it throws search::Error, and the index stays open.
  void Close(State next, bool commit);
  /// Gives a closed index another folder.
  void SetPath(const std::string& path);
  void SetState(State state);
  void SetEventHandler(std::unique_ptr<EventHandler> handler);

  /// The size of the files, also of one that is closed.
  std::int64_t BytesOnDisk() const;
  /// What the last attempt to open or repair said; "" when it went well.
  std::string problem() const;

 private:
  search::Index* Enter(Use::For purpose);
  void Leave();
  [[noreturn]] void Refuse() const;  // with mutex_ held
  enum class Opened { kDone, kOlder, kDamaged, kNot };
  Opened TryOpen();
  Opened UpgradeAndOpen();
  bool TryRepair();
  void AnswerWhileDamaged();
  void NoteLostChanges();
  void RepairFiles();
  void Become(State state, std::unique_ptr<search::Index> index);
  void SetProblem(const std::string& problem);
  void Rest();

  const search::OpenOptions options_;
  std::mutex admin_;                // held by whoever changes the state; taken before mutex_
  mutable std::mutex mutex_;        // guards the rest
  std::condition_variable unused_;  // users_ became 0
  State state_;
  std::string path_;
  std::string problem_;
  std::chrono::steady_clock::time_point rest_until_{};
  bool changes_lost_ = false;
  bool changed_ = false;  // since the last commit
  int users_ = 0;
  std::unique_ptr<search::Index> index_;
  std::unique_ptr<EventHandler> event_handler_;
};

}  // namespace nimoelasticd
