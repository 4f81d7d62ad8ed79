// What our databases add to SQLite: the tokenizer "nimo", the rank "nimo_rank", the functions "nimo_fold" and
// "nimo_among".
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "services/search/schema.h"

namespace search {

/// Ids of documents, the highest first.
using DocumentIds = std::vector<int64_t>;
inline constexpr char kDocumentIdsType[] = "nimo_document_ids";

/// Adds them to `database`, which keeps `schema` until it is closed. Throws Error kStorage.
///
/// nimo_rank(fts, LIMIT) is a number for a row of a full-text query, higher is better: BM25 with the weights of the
/// schema's columns, for the first LIMIT rows asked for, then 0. With a true third argument a row is weighed by what is
/// in it alone: how rare a word is elsewhere, and how long documents are, says nothing then.
/// nimo_fold(bytes) is Fold of them, for sorting.
/// nimo_among(IDS, id) is whether the id is one of them; IDS is bound as a pointer to a DocumentIds.
void RegisterFunctions(sqlite3* database, std::shared_ptr<const Schema> schema);

/// What the columns of the full text get of a record. On its way to the tokenizer a text would be copied several times,
/// so a statement gets marks that say which text is meant, and the tokenizers that are called in this thread while this
/// lives take the texts from here.
class GivenTexts {
 public:
  /// `texts` has to outlive this.
  explicit GivenTexts(const std::vector<ColumnText>& texts);
  ~GivenTexts();
  GivenTexts(const GivenTexts&) = delete;
  GivenTexts& operator=(const GivenTexts&) = delete;

  /// Stands for the text at `index`.
  static std::string Mark(size_t index);

 private:
  const std::vector<ColumnText>* before_;
};

}  // namespace search
