// Both ends of Unix stream sockets, for doubles of daemons and for raw clients.
#pragma once

#include <string>

namespace orbisk::test {

/// A descriptor, which the caller closes, that listens at `path`; a socket left there is replaced. Throws
/// std::system_error.
int ListenAt(const std::string& path, int backlog = 8);

/// A descriptor, which the caller closes, connected to who listens at `path`; -1, with errno, if nobody does.
int ConnectTo(const std::string& path);

/// Whether somebody listens at `path`. The file alone says less: it is there before its maker listens.
bool SomebodyListensAt(const std::string& path);

}  // namespace orbisk::test
