// Tells when a file in some folder is written to or replaced, without looking at it now and then.
#pragma once

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

namespace fileindexd {

/// inotify on the folders of files. The files need not be there, nor stay the same.
///
/// A folder that is missing, or goes, is looked for every 30 s until it is there; only then does this wake up without
/// being told.
///
/// Threads: that of the event loop.
class FileWatch {
 public:
  using Id = std::uint64_t;

  /// Throws std::system_error.
  explicit FileWatch(boost::asio::io_context& context);
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

  /// From now on `on_change` is called after each write to the file at `path`, when another one gets its name, when it
  /// is removed, and when its folder appears.
  Id Add(const std::string& path, std::function<void()> on_change) { return Add(path, false, std::move(on_change)); }
  /// The same, and also when the file is made: a socket, which nobody writes to.
  Id AddSocket(const std::string& path, std::function<void()> on_change) {
    return Add(path, true, std::move(on_change));
  }
  void Remove(Id id);
  /// Looks for missing folders now.
  void LookForMissing();

 private:
  struct File {
    std::string folder;
    std::string name;
    std::function<void()> on_change;
    bool creation = false;  // tells, too
    int watch = -1;         // of the folder; -1: missing
  };

  Id Add(const std::string& path, bool creation, std::function<void()> on_change);
  bool Arm(File& file);
  void Read();
  void Take(size_t bytes);
  void Lose(int watch);
  void WaitForMissing();

  boost::asio::posix::stream_descriptor inotify_;
  boost::asio::steady_timer timer_;
  bool waiting_ = false;
  std::map<Id, File> files_;
  Id next_id_ = 1;
  alignas(8) std::array<char, 16384> buffer_;
};

}  // namespace fileindexd
