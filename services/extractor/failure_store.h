// What is known against contents, kept on disk, so that one bad file does not end the daemon again after each start.
#pragma once

#include <json/json.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "services/base/unique_fd.h"
#include "services/extractor/failure_list.h"

namespace extractor {

/// Two files in a folder: "failures" has a line for each content that a worker died of, written before anybody is told,
/// and "in-work" has the contents that are with workers just now, each written down before its worker gets it.
///
/// Contents that are in "in-work" when a daemon starts were in work when the one before it ended without being asked,
/// which may be their fault or not: they become suspects. A suspect that is in work at such an end a second time counts
/// as a failure; one that comes back from its worker is no suspect any more.
///
/// "in-work" survives the end of the daemon, not the end of the machine: that would cost a wait for the disk per file.
///
/// What a different reader failed at is forgotten at the start. When the files cannot be used, or another process uses
/// them, one record says so, and everything is remembered in memory alone.
///
/// Threads: one at a time.
class FailureStore {
 public:
  struct Content {
    FailureList::Identity identity;
    std::string path;  ///< for people
  };

  /// Written down as long as it lives.
  class InWork {
   public:
    InWork(FailureStore& store, const Content& content);
    ~InWork();
    InWork(const InWork&) = delete;
    InWork& operator=(const InWork&) = delete;

   private:
    FailureStore& store_;
    size_t slot_;
  };

  /// `folder` is made if it is missing; with "" nothing is kept on disk. `reader` tells one way of reading from others.
  /// Holds the `most` latest failures.
  FailureStore(std::string folder, std::string reader, size_t most);

  /// Null if nothing is known against it. Valid until the next call that is not const.
  const FailureList::Failure* Find(const FailureList::Identity& content) const { return failures_.Find(content); }
  bool IsSuspect(const FailureList::Identity& content) const { return suspects_.count(content) != 0; }
  void Add(const Content& content, FailureList::Failure failure);
  /// It came back from its worker.
  void Acquit(const FailureList::Identity& content);
  size_t size() const { return failures_.size(); }
  size_t suspects() const { return suspects_.size(); }

 private:
  bool Open();
  void Load();
  void Take(const Json::Value& line);
  void TakeInWork(const std::string& text);
  void Append(const Json::Value& line);
  void Rewrite();
  void GiveUp(const char* what);

  std::string folder_;  // "" when nothing can be kept
  std::string reader_;
  FailureList failures_;
  std::map<FailureList::Identity, std::string> suspects_;
  service::UniqueFd list_;
  service::UniqueFd in_work_;
  size_t lines_ = 0;  // of the list
  std::vector<bool> slots_;
};

}  // namespace extractor
