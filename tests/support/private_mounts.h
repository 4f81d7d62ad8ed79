// Fixed paths of the system, private to one test program.
#pragma once

#include <string>
#include <system_error>
#include <vector>

namespace orbisk::test {

/// The machine does not let this program have mounts of its own. What else goes wrong is another std::system_error, so
/// that a test which is skipped for the one does not pass over the other.
class NotAllowed : public std::system_error {
 public:
  using std::system_error::system_error;
};

/// Moves the calling thread, and all threads and processes that it starts from now on, into a mount namespace of their
/// own, and makes each of `paths` an empty directory there: an empty file system is mounted over the nearest folder of
/// it that exists, and the rest of the path is made in it. What lies beside `paths` in that folder is hidden too.
/// Nothing outside sees any of this, and it is gone when the last process of the namespace ends.
///
/// Without root a user namespace is made as well, in which the caller is root; the kernel allows that only to a program
/// with one thread. Call it from the main thread, before the test makes files in a folder that gets covered. A second
/// call may hide what the first one made if its paths lie above. Throws NotAllowed, std::system_error.
void EnterPrivateMounts(const std::vector<std::string>& paths);

/// Mounts an empty file system of at most `size_bytes` at the existing directory `path`. Only after
/// EnterPrivateMounts. Throws NotAllowed, std::system_error.
void MountEmptyFileSystem(const std::string& path, size_t size_bytes);

/// Makes `from` appear at the existing `to` as well. Only after EnterPrivateMounts. Throws std::system_error.
void MountBind(const std::string& from, const std::string& to);

}  // namespace orbisk::test
