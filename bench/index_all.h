// Files on their way into an index without the indexing daemon, for what compares with it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace orbisk::bench {

/// Takes the files at `paths` through extractor, library and search daemon by `workers` threads, at least one, and
/// commits. A file whose content cannot be read is indexed by its attributes, as the daemon does. Returns how many are
/// in the index then; says on standard error why others are not. Throws orbisk::Error if the commit fails.
size_t IndexAll(const std::string& share, const std::vector<std::string>& paths, unsigned workers);

}  // namespace orbisk::bench
