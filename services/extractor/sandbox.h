// The cage of a worker.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace extractor {

/// Gives the process an empty folder as its root, if it may. What it holds open stays open. For root alone; others rely
/// on CloseSandbox.
void EnterEmptyRoot();

/// Closes the cage round the calling process, for good. It must have one thread, and only the descriptors that it is to
/// keep; `channel` is the socket it talks over.
///
/// Afterwards, whatever code runs in it: no file can be opened, looked at or changed, no socket made, no program run,
/// no process or thread started, no other process touched. It may read the descriptors it has, send over `channel`, and
/// use `memory_bytes` of memory for data. Attempts that a library makes in good faith (opening a file, starting a
/// thread) fail with EPERM; those that only an attacker makes (running a program, making a socket) end it with SIGSYS.
///
/// As root it becomes nobody first. It dies with `parent`, the process that started it.
///
/// Throws std::system_error when the kernel refuses what the cage cannot do without. Landlock is used where the kernel
/// has it.
void CloseSandbox(int channel, size_t memory_bytes, pid_t parent);

}  // namespace extractor
