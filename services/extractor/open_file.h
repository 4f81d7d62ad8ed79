// Opening what a path names without being led astray by links.
#pragma once

#include <string>

#include "services/base/unique_fd.h"

namespace extractor {

/// A descriptor (O_PATH: for looking at it only) of what `path`, an absolute path, names.
///
/// A link as the last name is not followed: the descriptor is the link's. Links before that are followed if root (or
/// the daemon's own user) made them; a folder of the path that somebody else replaced by a link would let him have any
/// file of the box read for him. Such a path fails with EPERM, more than 40 links with ELOOP.
///
/// Throws std::system_error.
service::UniqueFd OpenSubject(const std::string& path);

/// A descriptor for reading the regular file behind `subject`. Reading through it leaves the date of last use alone
/// where the kernel permits that, and opening does not wait for a holder of a lease. Throws std::system_error.
service::UniqueFd OpenForReading(const service::UniqueFd& subject);

}  // namespace extractor
