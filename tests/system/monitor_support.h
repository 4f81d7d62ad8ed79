// A place with a running change monitor, for system tests of it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/eventually.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {

/// One line of a queue file, read back.
struct QueueLine {
  int event = 0;
  bool is_dir = false;
  std::string path;
  std::string path_old;
  bool operator==(const QueueLine&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const QueueLine& line);

constexpr int kModifyLine = 0x2;
constexpr int kAttribLine = 0x4;
constexpr int kCreateLine = 0x40;
constexpr int kDeleteLine = 0x80;
constexpr int kRenameLine = 0x100;
constexpr int kCrashedLine = 0x200;
constexpr int kAllBits = 65478;  ///< the mask that the library registers

/// A private mount namespace with an empty file system, in it a watched folder (`share()`), a folder beside it
/// (`outside()`), the queue file in the index area, and the registrations. The first box of a program makes the
/// namespace.
class MonitorBox {
 public:
  /// `on_disk`: on the file system of /tmp instead of one of its own.
  explicit MonitorBox(bool on_disk = false);
  ~MonitorBox();

  const std::string& root() const { return root_; }
  std::string share() const { return root_ + "/vol/share"; }
  std::string outside() const { return root_ + "/vol/outside"; }
  std::string queue() const { return root_ + "/vol/@fileindex/share/queue"; }

  /// Registers folders for a queue file; without arguments `share()` with all bits, ignoring "@eaDir".
  void Register();
  void Register(const std::string& queue, const std::vector<std::string>& folders, int mask = kAllBits,
                const std::vector<std::string>& ignore = {"@eaDir"});
  void Unregister(const std::string& queue);

  /// The monitor is started through this command, which ends by running what is appended to it in its own place.
  void StartThrough(std::vector<std::string> launcher) { launcher_ = std::move(launcher); }
  /// Starts the monitor and waits until its watches stand. `arguments` are added to the command line.
  void Start(const std::vector<std::string>& arguments = {});
  /// Sends SIGTERM and waits for the end.
  ProcessResult Stop();
  /// Pokes the monitor: "reload" or "status"; its answer without the newline.
  std::string Ask(const std::string& request) const;
  Subprocess& monitor() { return *monitor_; }

  /// The lines of the queue file. A line that is not as the monitor writes it fails the test.
  std::vector<QueueLine> Lines() const;
  static std::vector<QueueLine> Lines(const std::string& queue);
  /// The same without crashed lines and with what happened up to now: waits for a line about a file made for this.
  std::vector<QueueLine> LinesSoFar();
  /// Waits until everything done so far is in the queue file.
  void Settle();
  /// Settles, then removes the queue file.
  void Forget();

 private:
  std::unique_ptr<TempDir> area_;
  std::string root_;
  std::vector<std::string> launcher_;
  std::unique_ptr<Subprocess> monitor_;
  int marks_ = 0;
};

/// Whether lines hold one that is equal to `line`.
bool Holds(const std::vector<QueueLine>& lines, const QueueLine& line);
long CountOf(const std::vector<QueueLine>& lines, int event);

/// A test on one of the kernel's interfaces, "fanotify" or "inotify", with the watched folder registered.
class MonitorTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override { box_.Register(); }
  void Start(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.end(), {"--backend", GetParam()});
    box_.Start(arguments);
    box_.Forget();
  }
  bool fanotify() const { return std::string(GetParam()) == "fanotify"; }
  std::string In(const std::string& name) const { return box_.share() + "/" + name; }

  MonitorBox box_;
};

}  // namespace orbisk::test
