// Words of documents that are worth suggesting to people while they type.
#pragma once

#include <set>
#include <string>

#include "services/search/schema.h"

namespace search {

/// The words of a record with its texts, each once: folded, three bytes and more, not too long, and no numbers.
std::set<std::string> WordsToSuggest(const Schema& schema, const Record& record);

}  // namespace search
