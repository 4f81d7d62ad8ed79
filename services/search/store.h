// Documents in tables: reading and writing of records, their texts, and their words. No transactions here.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "services/search/schema.h"
#include "services/search/sqlite.h"

namespace search {

/// Makes the tables of a new database.
void CreateTables(Connection& database, const Schema& schema);

/// The file's format; a higher one is of a later daemon, a lower one is brought up to it by DocumentStore::Upgrade.
///
///   1  the first
///   2  meta has the row "deleted"; a schema without words has a column for none; "white space escaped" is heeded
inline constexpr int kFormat = 2;

/// The documents whose words were deleted since the word index was last rewritten.
int64_t ReadDeletedCount(Connection& database);
void WriteDeletedCount(Connection& database, int64_t count);

/// A record with its place in the database. Its `extra` is not read unless ReadExtra is called.
struct StoredRecord {
  int64_t id = 0;
  Record record;
  std::string extra_text;
  bool suggested = false;
};

/// Texts as kept in the database: compressed, with a checksum; "" for a record without any. Any thread.
std::string PackTexts(const Record& record);
/// Throws Error kCorrupt.
void UnpackTexts(std::string_view packed, Record& record);

/// About what a value takes in memory: strings are all of it that can be much, and lists of them.
int64_t JsonBytes(const Json::Value& value);
/// JSON in one line, bytes as they are.
std::string JsonText(const Json::Value& value);
/// Throws Error kCorrupt.
Json::Value ParseJson(std::string_view text);

/// The documents of one open database. Used by one thread at a time.
class DocumentStore {
 public:
  DocumentStore(Connection& database, const Schema& schema);

  /// The columns that ReadRow reads, for "SELECT ... FROM doc d".
  const std::string& RowColumns() const { return row_columns_; }
  /// The record in the current row of a statement that begins with RowColumns.
  StoredRecord ReadRow(const Statement& row) const;

  std::optional<int64_t> FindId(std::string_view path);
  std::optional<StoredRecord> Find(std::string_view path);
  std::optional<StoredRecord> FindById(int64_t id);
  void ReadExtra(StoredRecord& stored) const;
  void ReadTexts(StoredRecord& stored);

  /// Adds a document; its path must be free. `packed` are its texts, if it has any.
  void Insert(const Record& record, std::string_view packed);
  void Insert(const Record& record);
  /// Puts `after`, with `packed`, in the place of `before`, whose texts and extra have been read; words are touched
  /// only where they differ. The path of `after` must be free, or the same.
  void Replace(const StoredRecord& before, const Record& after, std::string_view packed);
  void Replace(const StoredRecord& before, const Record& after);
  /// Writes columns and path alone. With `extra`, that too.
  void UpdateRow(const StoredRecord& before, const Record& after, bool extra);
  /// Whether two records have the same words as far as their columns go; texts are not compared.
  bool SameColumnWords(const Record& before, const Record& after) const;
  /// Deletes the document; reads its texts for that.
  void Delete(int64_t id);
  void MarkSuggested(int64_t id);
  /// Brings the tables from `format` up to kFormat, within the open transaction.
  void Upgrade(int64_t format);

 private:
  enum class WordChange { kInsert, kDelete };
  void RewriteWords();
  /// What all columns of the full text get of a record, in which it lies.
  struct RecordWords {
    std::vector<ColumnText> columns;
    std::deque<std::string> rooms;  // of those that do not lie there
  };
  RecordWords AllWords(const Record& record) const;
  void WriteWords(WordChange change, int64_t id, const RecordWords& words);
  void WriteTexts(int64_t id, std::string_view packed);
  void ReplaceAllButTexts(const StoredRecord& before, const Record& after);
  void BindCell(Statement& statement, int parameter, const Cell& cell) const;

  Connection& database_;
  const Schema& schema_;
  std::string row_columns_;
  std::string insert_row_;
  std::string insert_words_;
  std::string delete_words_;
  std::vector<std::string> word_marks_;  // of GivenTexts, by column
};

/// Writing pays at once for keeping the word index in few pieces; while this lives, within one transaction, it does
/// not, which makes the deletion of a large folder a third quicker. Later writes join the pieces bit by bit;
/// Index::Compact joins them at once, if a tenth of the documents was deleted.
class WordMergingPause {
 public:
  explicit WordMergingPause(Connection& database);
  /// As End, but if that fails nothing is said: whoever failed before has the reason.
  ~WordMergingPause();
  WordMergingPause(const WordMergingPause&) = delete;
  WordMergingPause& operator=(const WordMergingPause&) = delete;
  void End();

 private:
  Connection& database_;
  bool ended_ = false;
};

}  // namespace search
