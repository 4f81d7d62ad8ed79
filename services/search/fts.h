// What our databases add to SQLite: the tokenizer "nimo", the rank "nimo_rank", the functions "nimo_fold" and
// "nimo_among".
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "services/search/schema.h"

namespace search {

/// Adds them to `database`, which keeps `schema` until it is closed. Throws Error kStorage.
///
/// nimo_rank(fts, LIMIT) is a number for a row of a full-text query, higher is better: BM25 with the weights of the
/// schema's columns, for the first LIMIT rows asked for, then 0. With a true third argument a row is weighed by what is
/// in it alone: how rare a word is elsewhere, and how long documents are, says nothing then.
/// nimo_fold(bytes) is Fold of them, for sorting.
/// nimo_among(IDS, id) is whether the id is one of them; IDS is bound as a pointer to a DocumentIds.
/// Ids of documents, the highest first.
using DocumentIds = std::vector<int64_t>;
inline constexpr char kDocumentIdsType[] = "nimo_document_ids";

void RegisterFunctions(sqlite3* database, std::shared_ptr<const Schema> schema);

}  // namespace search
