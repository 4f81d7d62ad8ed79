// Documents in tables.
//
//   meta   name, value: format, mappings, settings, deleted; suggestions once there are any
//   doc    a row for each document: path and everything short; column cN is Field::column N
//   texts  the long rest, compressed, by the document's id
//   fts    the words, by the document's id; it keeps no text, so a delete tells it the words again
#include "services/search/store.h"

#include <json/reader.h>
#include <json/writer.h>
#include <zstd.h>

#include <algorithm>
#include <memory>
#include <new>
#include <sstream>
#include <utility>

#include "services/search/fts.h"
#include "services/search/index.h"

namespace search {
namespace {

constexpr char kRaw = 'r';
constexpr char kCompressed = 'z';
constexpr size_t kCompressFrom = 64;
constexpr int kCompressionLevel = 3;
constexpr int kFixedColumns = 4;  // id, path, suggested, extra

struct ContextDeleter {
  void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
  void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

[[noreturn]] void Corrupt(const char* what) {
  throw Error(ErrorCode::kCorrupt, std::string("damaged: ") + what);
}

void PutNumber(std::string& out, uint64_t number) {
  for (; number >= 0x80; number >>= 7) {
    out += static_cast<char>(number | 0x80);
  }
  out += static_cast<char>(number);
}

uint64_t TakeNumber(std::string_view& in) {
  uint64_t number = 0;
  for (unsigned shift = 0; shift < 63 && !in.empty(); shift += 7) {
    const auto byte = static_cast<unsigned char>(in.front());
    in.remove_prefix(1);
    number |= uint64_t{byte & 0x7fu} << shift;
    if (byte < 0x80) {
      return number;
    }
  }
  Corrupt("a number in a text");
}

std::string Compress(const std::string& raw) {
  thread_local const std::unique_ptr<ZSTD_CCtx, ContextDeleter> context(ZSTD_createCCtx());
  if (!context) {
    throw std::bad_alloc();
  }
  ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, kCompressionLevel);
  ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
  std::string packed(1 + ZSTD_compressBound(raw.size()), kCompressed);
  const size_t size = ZSTD_compress2(context.get(), packed.data() + 1, packed.size() - 1, raw.data(), raw.size());
  if (ZSTD_isError(size) != 0) {
    throw std::bad_alloc();
  }
  packed.resize(1 + size);
  return packed;
}

std::string Decompress(std::string_view packed) {
  thread_local const std::unique_ptr<ZSTD_DCtx, ContextDeleter> context(ZSTD_createDCtx());
  if (!context) {
    throw std::bad_alloc();
  }
  constexpr uint64_t kLargest = 1u << 30;  // no document is larger; a damaged frame may claim anything
  const auto size = ZSTD_getFrameContentSize(packed.data(), packed.size());
  if (size == ZSTD_CONTENTSIZE_ERROR || size == ZSTD_CONTENTSIZE_UNKNOWN || size > kLargest) {
    Corrupt("a text");
  }
  std::string raw(static_cast<size_t>(size), '\0');
  const size_t done = ZSTD_decompressDCtx(context.get(), raw.data(), raw.size(), packed.data(), packed.size());
  if (ZSTD_isError(done) != 0 || done != raw.size()) {
    Corrupt("a text");
  }
  return raw;
}

}  // namespace

void CreateTables(Connection& database, const Schema& schema) {
  std::string columns;
  for (size_t i = 0; i < schema.columns(); ++i) {
    columns += ", c" + std::to_string(i);
  }
  database.Exec("CREATE TABLE doc(id INTEGER PRIMARY KEY, path BLOB NOT NULL, suggested INTEGER NOT NULL DEFAULT 0" +
                columns + ", extra BLOB)");
  database.Exec("CREATE UNIQUE INDEX doc_path ON doc(path)");
  database.Exec("CREATE TABLE texts(id INTEGER PRIMARY KEY, data BLOB NOT NULL)");
  database.Exec("CREATE TABLE suggestion(word BLOB PRIMARY KEY, documents INTEGER NOT NULL) WITHOUT ROWID");
  database.Exec("CREATE TABLE meta(name TEXT PRIMARY KEY, value) WITHOUT ROWID");
  std::string words;
  for (size_t i = 0; i < schema.word_columns().size(); ++i) {
    words += "w" + std::to_string(i) + ", ";
  }
  // The full text needs a column, also where no field has words; that one stays empty.
  words += words.empty() ? "none, " : "";
  database.Exec("CREATE VIRTUAL TABLE fts USING fts5(" + words + "content='', tokenize='nimo')");
  database.Exec("CREATE VIRTUAL TABLE vocabulary USING fts5vocab(fts, row)");
  const std::string mappings = JsonText(schema.mappings());
  const std::string settings = JsonText(schema.settings());
  Statement meta(database.handle(),
                 "INSERT INTO meta VALUES('format', ?1), ('mappings', ?2), ('settings', ?3), ('deleted', 0)");
  meta.Bind(1, int64_t{kFormat}).Bind(2, mappings).Bind(3, settings).Run();
}

int64_t ReadDeletedCount(Connection& database) {
  return database.QueryInt("SELECT value FROM meta WHERE name = 'deleted'");
}

void WriteDeletedCount(Connection& database, int64_t count) {
  database.Cached("UPDATE meta SET value = ?1 WHERE name = 'deleted'").Bind(1, count).Run();
}

std::string PackTexts(const Record& record) {
  if (record.texts.empty()) {
    return "";
  }
  std::string raw;
  for (const auto& [field, value] : record.texts) {
    const char* begin = nullptr;
    const char* end = nullptr;
    const bool plain = value.getString(&begin, &end);
    const std::string list = plain ? "" : JsonText(value);
    const std::string_view text = plain ? std::string_view(begin, static_cast<size_t>(end - begin)) : list;
    PutNumber(raw, field * 2 + (plain ? 0 : 1));
    PutNumber(raw, text.size());
    raw += text;
  }
  return raw.size() < kCompressFrom ? kRaw + raw : Compress(raw);
}

void UnpackTexts(std::string_view packed, Record& record) {
  if (packed.empty() || (packed.front() != kRaw && packed.front() != kCompressed)) {
    Corrupt("a text");
  }
  const std::string raw = packed.front() == kRaw ? std::string(packed.substr(1)) : Decompress(packed.substr(1));
  for (std::string_view rest = raw; !rest.empty();) {
    const uint64_t key = TakeNumber(rest);
    const uint64_t size = TakeNumber(rest);
    if (size > rest.size()) {
      Corrupt("a text");
    }
    const std::string_view text = rest.substr(0, size);
    rest.remove_prefix(size);
    record.texts[key / 2] = key % 2 == 0 ? Json::Value(text.data(), text.data() + text.size()) : ParseJson(text);
  }
}

int64_t JsonBytes(const Json::Value& value) {
  constexpr int64_t kItself = 16;
  if (value.isString()) {
    const char* begin = nullptr;
    const char* end = nullptr;
    value.getString(&begin, &end);
    return end - begin;
  }
  int64_t bytes = 0;
  for (const Json::Value& item : value) {
    bytes += JsonBytes(item) + kItself;
  }
  return bytes;
}

std::string JsonText(const Json::Value& value) {
  static const Json::StreamWriterBuilder builder = [] {
    Json::StreamWriterBuilder made;
    made["indentation"] = "";
    made["emitUTF8"] = true;  // else bytes that are not UTF-8 would be replaced
    return made;
  }();
  return Json::writeString(builder, value);
}

Json::Value ParseJson(std::string_view text) {
  thread_local const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
      Corrupt("a value");
    }
  } catch (const Json::Exception&) {  // nested too deep
    Corrupt("a value");
  }
  return value;
}

DocumentStore::DocumentStore(Connection& database, const Schema& schema) : database_(database), schema_(schema) {
  row_columns_ = "d.id, d.path, d.suggested, d.extra";
  insert_row_ = "INSERT INTO doc(path, extra";
  std::string parameters = "?1, ?2";
  for (size_t i = 0; i < schema.columns(); ++i) {
    row_columns_ += ", d.c" + std::to_string(i);
    insert_row_ += ", c" + std::to_string(i);
    parameters += ", ?" + std::to_string(i + 3);
  }
  insert_row_ += ") VALUES(" + parameters + ")";
  std::string names;
  std::string values;
  for (size_t i = 0; i < schema.word_columns().size(); ++i) {
    names += ", w" + std::to_string(i);
    values += ", ?" + std::to_string(i + 2);
    word_marks_.push_back(GivenTexts::Mark(i));
  }
  insert_words_ = "INSERT INTO fts(rowid" + names + ") VALUES(?1" + values + ")";
  delete_words_ = "INSERT INTO fts(fts, rowid" + names + ") VALUES('delete', ?1" + values + ")";
}

StoredRecord DocumentStore::ReadRow(const Statement& row) const {
  StoredRecord stored;
  stored.id = row.Int(0);
  stored.record.path = row.Bytes(1);
  stored.suggested = row.Int(2) != 0;
  stored.extra_text = row.Bytes(3);
  stored.record.columns.resize(schema_.columns());
  for (size_t i = 0; i < schema_.columns(); ++i) {
    const int column = kFixedColumns + static_cast<int>(i);
    switch (row.Type(column)) {
      case SQLITE_NULL:
        break;
      case SQLITE_INTEGER:
        stored.record.columns[i] = row.Int(column);
        break;
      case SQLITE_FLOAT:
        stored.record.columns[i] = row.Double(column);
        break;
      default:
        stored.record.columns[i] = std::string(row.Bytes(column));
    }
  }
  return stored;
}

std::optional<int64_t> DocumentStore::FindId(std::string_view path) {
  Statement& statement = database_.Cached("SELECT id FROM doc WHERE path = ?1");
  const ScopedReset reset(statement);
  statement.Bind(1, path);
  return statement.Step() ? std::optional<int64_t>(statement.Int(0)) : std::nullopt;
}

std::optional<StoredRecord> DocumentStore::Find(std::string_view path) {
  Statement& statement = database_.Cached("SELECT " + row_columns_ + " FROM doc d WHERE d.path = ?1");
  const ScopedReset reset(statement);
  statement.Bind(1, path);
  return statement.Step() ? std::optional<StoredRecord>(ReadRow(statement)) : std::nullopt;
}

std::optional<StoredRecord> DocumentStore::FindById(int64_t id) {
  Statement& statement = database_.Cached("SELECT " + row_columns_ + " FROM doc d WHERE d.id = ?1");
  const ScopedReset reset(statement);
  statement.Bind(1, id);
  return statement.Step() ? std::optional<StoredRecord>(ReadRow(statement)) : std::nullopt;
}

void DocumentStore::ReadExtra(StoredRecord& stored) const {
  if (!stored.extra_text.empty()) {
    stored.record.extra = ParseJson(stored.extra_text);
    stored.extra_text.clear();
  }
}

void DocumentStore::ReadTexts(StoredRecord& stored) {
  Statement& statement = database_.Cached("SELECT data FROM texts WHERE id = ?1");
  const ScopedReset reset(statement);
  statement.Bind(1, stored.id);
  if (statement.Step()) {
    UnpackTexts(statement.Bytes(0), stored.record);
  }
}

void DocumentStore::BindCell(Statement& statement, int parameter, const Cell& cell) const {
  if (const auto* number = std::get_if<int64_t>(&cell)) {
    statement.Bind(parameter, *number);
  } else if (const auto* real = std::get_if<double>(&cell)) {
    statement.Bind(parameter, *real);
  } else if (const auto* bytes = std::get_if<std::string>(&cell)) {
    statement.Bind(parameter, std::string_view(*bytes));
  } else {
    statement.BindNull(parameter);
  }
}

void DocumentStore::Insert(const Record& record) {
  Insert(record, PackTexts(record));
}

void DocumentStore::Insert(const Record& record, std::string_view packed) {
  const std::string extra = record.extra.empty() ? "" : JsonText(record.extra);
  Statement& statement = database_.Cached(insert_row_);
  {
    const ScopedReset reset(statement);
    statement.Bind(1, std::string_view(record.path));
    extra.empty() ? statement.BindNull(2) : statement.Bind(2, std::string_view(extra));
    for (size_t i = 0; i < record.columns.size(); ++i) {
      BindCell(statement, static_cast<int>(i) + 3, record.columns[i]);
    }
    statement.Step();
  }
  const int64_t id = sqlite3_last_insert_rowid(database_.handle());
  WriteTexts(id, packed);
  WriteWords(WordChange::kInsert, id, AllWords(record));
}

void DocumentStore::WriteTexts(int64_t id, std::string_view packed) {
  if (packed.empty()) {
    database_.Cached("DELETE FROM texts WHERE id = ?1").Bind(1, id).Run();
    return;
  }
  Statement& statement = database_.Cached("INSERT OR REPLACE INTO texts(id, data) VALUES(?1, ?2)");
  statement.Bind(1, id).Bind(2, packed).Run();
}

DocumentStore::RecordWords DocumentStore::AllWords(const Record& record) const {
  RecordWords words;
  for (size_t i = 0; i < schema_.word_columns().size(); ++i) {
    std::string room;
    const ColumnText column = schema_.Words(record, i, room);
    words.columns.push_back(column);
    if (!room.empty()) {
      words.columns.back().text = words.rooms.emplace_back(std::move(room));
    }
  }
  return words;
}

void DocumentStore::WriteWords(WordChange change, int64_t id, const RecordWords& words) {
  Statement& statement = database_.Cached(change == WordChange::kInsert ? insert_words_ : delete_words_);
  const ScopedReset reset(statement);
  const GivenTexts given(words.columns);
  statement.Bind(1, id);
  for (size_t i = 0; i < words.columns.size(); ++i) {
    words.columns[i].text.empty() ? statement.BindNull(static_cast<int>(i) + 2)
                                  : statement.BindText(static_cast<int>(i) + 2, word_marks_[i]);
  }
  statement.Step();
}

// Texts are packed only if they differ: a rename has none to write.
void DocumentStore::Replace(const StoredRecord& before, const Record& after) {
  if (before.record.texts != after.texts) {
    WriteTexts(before.id, PackTexts(after));
  }
  ReplaceAllButTexts(before, after);
}

void DocumentStore::Replace(const StoredRecord& before, const Record& after, std::string_view packed) {
  if (before.record.texts != after.texts) {
    WriteTexts(before.id, packed);
  }
  ReplaceAllButTexts(before, after);
}

void DocumentStore::ReplaceAllButTexts(const StoredRecord& before, const Record& after) {
  UpdateRow(before, after, true);
  const RecordWords old_words = AllWords(before.record);
  const RecordWords new_words = AllWords(after);
  if (old_words.columns != new_words.columns) {
    WriteWords(WordChange::kDelete, before.id, old_words);
    WriteWords(WordChange::kInsert, before.id, new_words);
  }
}

void DocumentStore::UpdateRow(const StoredRecord& before, const Record& after, bool extra) {
  std::string sql = "UPDATE doc SET ";
  std::vector<size_t> changed;
  for (size_t i = 0; i < after.columns.size(); ++i) {
    if (after.columns[i] != before.record.columns[i]) {
      sql += "c" + std::to_string(i) + " = ?" + std::to_string(i + 4) + ", ";
      changed.push_back(i);
    }
  }
  const bool moved = after.path != before.record.path;
  sql += moved ? "path = ?2" : "id = id";
  sql += extra ? ", extra = ?3, suggested = 0" : "";
  if (!moved && !extra && changed.empty()) {
    return;
  }
  const std::string extra_text = !extra || after.extra.empty() ? "" : JsonText(after.extra);
  Statement& statement = database_.Cached(sql + " WHERE id = ?1");
  const ScopedReset reset(statement);
  statement.Bind(1, before.id);
  if (moved) {
    statement.Bind(2, std::string_view(after.path));
  }
  if (extra) {
    extra_text.empty() ? statement.BindNull(3) : statement.Bind(3, std::string_view(extra_text));
  }
  for (const size_t i : changed) {
    BindCell(statement, static_cast<int>(i) + 4, after.columns[i]);
  }
  statement.Step();
}

bool DocumentStore::SameColumnWords(const Record& before, const Record& after) const {
  for (const WordColumn& words : schema_.word_columns()) {
    const int column = schema_.fields()[words.field].column;
    if (column >= 0 && before.columns[static_cast<size_t>(column)] != after.columns[static_cast<size_t>(column)]) {
      return false;
    }
  }
  return true;
}

void DocumentStore::Delete(int64_t id) {
  std::optional<StoredRecord> stored = FindById(id);
  if (!stored) {
    return;
  }
  ReadTexts(*stored);
  WriteWords(WordChange::kDelete, id, AllWords(stored->record));
  database_.Cached("DELETE FROM texts WHERE id = ?1").Bind(1, id).Run();
  database_.Cached("DELETE FROM doc WHERE id = ?1").Bind(1, id).Run();
}

void DocumentStore::Upgrade(int64_t format) {
  if (format < 2) {
    database_.Exec("INSERT INTO meta VALUES('deleted', 0)");
    const auto& words = schema_.word_columns();
    if (std::any_of(words.begin(), words.end(), [this](const WordColumn& column) {
          return schema_.fields()[column.field].analyzer == Analyzer::kWhiteSpaceEscaped;
        })) {
      RewriteWords();
    }
  }
  database_.Exec("UPDATE meta SET value = " + std::to_string(kFormat) + " WHERE name = 'format'");
}

// For when the same documents have other words than before.
void DocumentStore::RewriteWords() {
  database_.Exec("INSERT INTO fts(fts) VALUES('delete-all')");
  Statement rows(database_.handle(), "SELECT " + row_columns_ + " FROM doc d ORDER BY d.id");
  while (rows.Step()) {
    StoredRecord stored = ReadRow(rows);
    ReadTexts(stored);
    WriteWords(WordChange::kInsert, stored.id, AllWords(stored.record));
  }
}

void DocumentStore::MarkSuggested(int64_t id) {
  database_.Cached("UPDATE doc SET suggested = 1 WHERE id = ?1").Bind(1, id).Run();
}

// FTS5 keeps the number in the database, so that it would stay switched off.
WordMergingPause::WordMergingPause(Connection& database) : database_(database) {
  database_.Exec("INSERT INTO fts(fts, rank) VALUES('automerge', 0)");
}

WordMergingPause::~WordMergingPause() {
  if (!ended_) {
    try {
      End();
    } catch (const std::exception&) {
      // The change failed, and its transaction with it.
    }
  }
}

void WordMergingPause::End() {
  ended_ = true;
  database_.Exec("INSERT INTO fts(fts, rank) VALUES('automerge', 4)");  // FTS5's own default
}

}  // namespace search
