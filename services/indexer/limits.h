// Keeps indexing out of the way of what the box is for.
#pragma once

namespace fileindexd {

/// Gives the calling thread low priority for processor and disk: batch scheduling, the nice value `nice` and the lowest
/// of the best-effort disk priorities. What the system refuses is left as it is.
void LowerPriority(int nice);

}  // namespace fileindexd
