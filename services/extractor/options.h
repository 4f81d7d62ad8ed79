// What the command line decides.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace extractor {

using Clock = std::chrono::steady_clock;

struct Options {
  std::string socket = "/var/run/nimocontentextractd.sock";
  std::string pid_file = "/var/run/nimocontentextractd.pid";
  std::string socket_group;                                   ///< may connect beside root; "": nobody
  std::string state_folder = "/var/lib/nimocontentextractd";  ///< keeps failures; "": they are not kept
  size_t memory_bytes = size_t{512} << 20;                    ///< of one worker
  std::chrono::milliseconds deadline{30'000};                 ///< for the content of one file
  size_t text_bytes = size_t{4} << 20;                        ///< text taken from one file
  size_t workers = 0;                                         ///< 0: one for each core
  size_t files_per_worker = 1000;                             ///< a worker is replaced after so many
  std::chrono::milliseconds patience{10'000};                 ///< with a client that does not send or take its message
  size_t connections = 64;                                    ///< served at a time; others wait for being accepted
};

}  // namespace extractor
