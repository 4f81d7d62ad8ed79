// How the operations of this layer report what failed.
#pragma once

#include <cerrno>

namespace nimo {

/// Makes `code` the thread's last error, reported by `line` of the source file `file` (a base name that stays valid),
/// and returns -1, so that a failing operation can end with it.
int Fail(int code, const char* file, int line);

}  // namespace nimo

/// Fails with `code`.
#define NIMO_FAIL(code) ::nimo::Fail((code), __FILE_NAME__, __LINE__)

/// Fails with what the last system call left in errno.
#define NIMO_FAIL_ERRNO() NIMO_FAIL(errno)
