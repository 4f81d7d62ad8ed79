// Which files are indexed without their content, or not at all, and why: kept until that is no longer so.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace fileindexd {

/// The failures of one share, one for each path, the latest 10,000. They outlive the daemon in a file beside the queue.
/// The documents themselves say that they failed, too (Stamp::Failed): one that is not on the list is read again.
///
/// Threads: any.
class Failures {
 public:
  /// Why the file at `path` has no content in the index, or no document; in the place of what was said before.
  void Add(const std::string& path, const std::string& reason);
  /// The same, where nobody knows why: what was said before stays.
  void AddUnexplained(const std::string& path);
  /// Gives the reason, if the file is on the list.
  void Explain(const std::string& path, const std::string& reason);
  /// All is well with `path`, or it is gone.
  void Forgive(const std::string& path);
  /// The same, if `reason` was what was wrong.
  void ForgiveIf(const std::string& path, const std::string& reason);
  /// Nothing is left at and below `path`.
  void ForgiveTree(const std::string& path);
  /// What was at and below `from` is now at and below `to`, in the place of what was there.
  void Move(const std::string& from, const std::string& to);

  bool Has(const std::string& path) const;
  /// Whether there are so many that one more takes the place of another.
  bool IsFull() const;
  /// Those at and below `path`, in the order of bytes.
  std::vector<std::string> PathsIn(const std::string& path) const;

  /// Adds to `json`: "failed", how many there are; "reasons", how many for each reason; "failures", an array of "path"
  /// and "reason", the `most` latest ones, oldest first.
  void Report(Json::Value& json, size_t most) const;

  /// Takes what an earlier daemon stored at `file`, unless more is known by now. Paths in it are those below `folder`.
  /// False if there is nothing that can be read.
  bool Load(const std::string& file, const std::string& folder);
  /// Stores them if anything changed. Throws std::system_error.
  void Store(const std::string& file, const std::string& folder);

  /// Which way of reading failed at them; "" while nobody knows. Stored with them.
  std::string reader() const;
  void SetReader(const std::string& reader);

 private:
  struct Failure {
    std::string reason;
    std::uint64_t age = 0;  // the larger, the later
  };
  using List = std::map<std::string, Failure>;

  void Put(const std::string& path, const std::string& reason);
  void Erase(List::iterator at);

  mutable std::mutex mutex_;  // guards all of the below
  List list_;
  std::map<std::uint64_t, List::iterator> by_age_;
  std::map<std::string, std::uint64_t> reasons_;
  std::uint64_t next_age_ = 0;
  std::string reader_;
  bool changed_ = false;  // since it was stored
};

/// Where the failures of a share lie: beside the queue file, and so on the share's volume.
std::string FailuresPath(const std::string& queue);

}  // namespace fileindexd
