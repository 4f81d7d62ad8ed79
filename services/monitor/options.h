// What the command line decides.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace nimotifyd {

using Clock = std::chrono::steady_clock;

enum class BackendChoice { kAuto, kFanotify, kInotify };

struct Options {
  std::string registrations = "/var/lib/nimotifyd/queues.d";
  std::string socket = "/var/run/nimotifyd.sock";
  BackendChoice backend = BackendChoice::kAuto;
  bool bounded_kernel_queue = false;               ///< fanotify: keep the kernel's own limit on its queue
  size_t memory_limit_bytes = size_t{64} << 20;    ///< lines kept for one queue file that cannot be written
  size_t read_ahead_bytes = size_t{64} << 20;      ///< kernel events held while a folder's place is looked up
  size_t folder_cache_limit = 131'072;             ///< fanotify: folders whose place is remembered
  std::chrono::milliseconds gather{10};            ///< how long events are gathered while they keep coming
  std::chrono::milliseconds content_report{5000};  ///< a file that stays open for writing is reported this often
  size_t watch_limit = 0;               ///< inotify: watches to use at most; 0: what the system allows less reserve
  unsigned watch_reserve_percent = 10;  ///< inotify: share of the system's watches left to other programs
  std::chrono::milliseconds poll_period{60'000};  ///< inotify: how often folders without a watch are looked through
};

}  // namespace nimotifyd
