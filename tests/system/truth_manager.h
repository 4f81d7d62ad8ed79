// Random management operations, each in a process of its own, while other things happen.
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace orbisk::test {

/// Does what administrators do, one operation at a time and without waiting for it. An operation may fail, or wait for
/// ever for an answer of a daemon that was killed; then it is ended, and Settle does what an administrator would do.
///
/// Threads: one.
class TruthManager {
 public:
  static constexpr unsigned kKinds = 13;

  TruthManager(std::string volume, std::vector<std::string> shares)
      : volume_(std::move(volume)), shares_(std::move(shares)) {}
  ~TruthManager();
  TruthManager(const TruthManager&) = delete;
  TruthManager& operator=(const TruthManager&) = delete;

  const std::vector<std::string>& Shares() const { return shares_; }
  /// The shares' folders.
  std::vector<std::string> Roots() const;
  /// The entry of the folders file that governs a full path; null if none does.
  Json::Value Governing(const std::string& path) const;

  /// Begins an operation of one of the kinds, unless the last one is still at work.
  void Begin(unsigned kind);
  /// Waits for the operation in work and takes back what would keep the index from following. All daemons run. Fails
  /// the test where that fails.
  void Settle();
  /// Gives the share another name, or its old one back, as a box does: pause, folder, registry, rename, resume.
  void RenameShare(const std::string& name, const std::string& other);

  /// What was done lately, for a failed test.
  std::string Story() const;
  /// How many operations were done, and how many failed.
  std::string Counts() const;

 private:
  using Operation = std::function<void()>;

  void Start(const std::string& name, const Operation& operation);
  bool IsIndexed(const std::string& share) const;
  bool HasEnded() const;
  void Finish();
  bool Succeeds(const std::string& name, const Operation& operation);
  void MustSucceed(const std::string& name, const Operation& operation);
  void MakeGood(const std::vector<std::string>& command);
  void BeginFolder(unsigned kind);
  void BeginShare(unsigned kind);
  const std::string& AnyShare();
  std::string AnyFolder();

  std::string volume_;
  std::vector<std::string> shares_;
  unsigned turn_ = 0;  // in place of another source of chance

  pid_t process_ = -1;
  int answer_ = -1;  // of the process: why it failed
  std::vector<std::string> story_;
  std::set<std::string> paused_shares_;
  bool paused_ = false;
  bool paused_volume_ = false;
  bool trouble_ = false;  // something was left half done
  unsigned done_ = 0;
  unsigned refused_ = 0;
  unsigned failed_ = 0;
};

}  // namespace orbisk::test
