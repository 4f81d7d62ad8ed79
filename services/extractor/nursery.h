// The process that workers are forked from. It has loaded the readers' data once and holds nothing else, so that a new
// worker costs a fork and inherits nothing of clients.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "services/extractor/reader.h"

namespace extractor {

/// The descriptors that a nursery is started with. Both are sockets that keep messages apart.
constexpr int kNurseryControl = 3;  ///< in: one byte and the channel of a worker to be; out: NurseryBirth
constexpr int kNurseryEnds = 4;     ///< out: WorkerEnd

/// The first byte of each message over the control socket. A birth has the worker's process descriptor beside it; a
/// refusal, in place of the ready word or of a birth, has its reason behind the byte.
constexpr char kNurseryReady = 'r';
constexpr char kNurseryRefusal = 'e';
constexpr char kNurseryBirth = 'b';

struct NurseryBirth {
  char kind = kNurseryBirth;
  pid_t pid = 0;
};

/// How a worker ended; `status` as wait(2) has it.
struct WorkerEnd {
  pid_t pid = 0;
  int status = 0;
};

/// The word on the command line that makes the program a nursery: "--nursery MEMORY_BYTES".
constexpr char kNurseryWord[] = "--nursery";

/// Runs a nursery until the control socket is closed; its workers then die with it. Returns the exit status.
int RunNursery(ContentReader& reader, size_t memory_bytes);

}  // namespace extractor
