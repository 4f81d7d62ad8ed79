// The command channel to the indexing daemon.
#pragma once

#include <json/json.h>

#include <string>

#include "orbisk/export.h"

namespace orbisk::fileindex {

// Threads: all functions may be called from any thread; each call has a connection of its own. All throw Error 502 with
// what failed and the system's text.

/// Sends the command {"type": type, "data": data} to the daemon and waits for its answer, which is thrown away.
///
/// A daemon that has no socket yet is waited for: 5 attempts, 1 s apart. Other failures to connect show when the
/// command is written. Sending gives up after 1 s without progress; waiting for the answer has no limit, and a daemon
/// that closes the connection without answering in full is waited for without end.
///
/// SIGPIPE is ignored in the whole process from the first call on.
ORBISK_EXPORT void SendCommandToDaemon(const std::string& type, const Json::Value& data);

/// Writes `size` bytes to `fd`, at most 1024 with each write(2). Up to 10 interruptions by signals are gone over.
ORBISK_EXPORT void BufferWrite(int fd, unsigned long size, const unsigned char* buf);

/// Reads `size` bytes from `fd`, at most 1024 with each read(2). Up to 10 interruptions by signals are gone over. At
/// the end of the stream it goes on reading, until the bytes come or for ever.
ORBISK_EXPORT void BufferRead(int fd, unsigned long size, unsigned char* buf);

}  // namespace orbisk::fileindex
