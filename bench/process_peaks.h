// How much memory each program needed that a bench started, and those that they started.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <thread>

namespace orbisk::bench {

/// Looks at all descendants of the process four times a second. What lives shorter may be missed; the peak of what is
/// seen is the kernel's own, not that of the looks.
///
/// Threads: one of its own, and that of its owner.
class ProcessPeaks {
 public:
  ProcessPeaks() : thread_([this] { Run(); }) {}
  ~ProcessPeaks() { Stop(); }
  ProcessPeaks(const ProcessPeaks&) = delete;
  ProcessPeaks& operator=(const ProcessPeaks&) = delete;

  /// Ends looking. Highest resident memory in KiB by the program's name; for children of a program of the same name,
  /// "NAME, child", "NAME, child, child".
  const std::map<std::string, long>& Stop();

 private:
  void Run();
  void Look(int pid, const std::string& parent, const std::string& label);

  std::map<std::string, long> peaks_;  // the thread's alone until it has ended
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace orbisk::bench
