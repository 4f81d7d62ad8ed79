// What our databases add to SQLite: the tokenizer "nimo", the rank "nimo_rank", the function "nimo_fold".
#pragma once

#include <sqlite3.h>

#include <memory>

#include "services/search/schema.h"

namespace search {

/// Adds them to `database`, which keeps `schema` until it is closed. Throws Error kStorage.
///
/// nimo_rank(fts, LIMIT) is a number for a row of a full-text query, higher is better: BM25 with the weights of the
/// schema's columns, for the first LIMIT rows asked for, then 0.
/// nimo_fold(bytes) is Fold of them, for sorting.
void RegisterFunctions(sqlite3* database, std::shared_ptr<const Schema> schema);

}  // namespace search
