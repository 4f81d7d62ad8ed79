// The index: who may write when, what a failure leaves, and which state a reader sees.
#include "services/search/index.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <filesystem>
#include <mutex>
#include <set>
#include <utility>

#include "services/search/database.h"
#include "services/search/query.h"
#include "services/search/searcher.h"
#include "services/search/suggestions.h"
#include "services/search/words.h"

namespace search {
namespace {

int64_t FileBytes(const std::string& file) {
  struct stat status {};
  return stat(file.c_str(), &status) == 0 ? status.st_size : 0;
}

void MakeDirectory(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) {
    throw Error(error == std::errc::no_space_on_device ? ErrorCode::kDiskFull : ErrorCode::kStorage,
                "making the folder " + path + ": " + error.message());
  }
}

}  // namespace

class Index::Impl {
 public:
  Impl(std::string path, const OpenOptions& options)
      : path_(std::move(path)),
        options_(options),
        writer_(std::make_unique<Database>(DatabaseFile(path_))),
        readers_(DatabaseFile(path_), writer_->schema(), options) {
    writer_->PrepareToWrite(options);
    deleted_ = saved_deleted_ = ReadDeletedCount(writer_->connection());
  }

  // Runs a change in the open transaction. A failure of the disk gives all of it up.
  template <typename Change>
  auto Write(Change change) {
    const std::lock_guard guard(write_lock_);
    try {
      if (!writer_->connection().InTransaction()) {
        writer_->connection().Exec("BEGIN IMMEDIATE");
      }
      uncommitted_ = true;
      return change(writer_->store());
    } catch (const Error& error) {
      if (error.code() == ErrorCode::kDiskFull || error.code() == ErrorCode::kStorage ||
          error.code() == ErrorCode::kCorrupt) {
        GiveUp(error);
      }
      throw;
    } catch (const std::bad_alloc&) {
      GiveUp(Error(ErrorCode::kStorage, "out of memory in a change"));
      throw;
    }
  }

  void Commit();
  void GiveUp(const Error& error) {
    RollBack();
    lost_ = error;
  }
  void RollBack() {
    sqlite3_exec(writer_->connection().handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    deleted_ = saved_deleted_;
  }

  void CheckSize(const Json::Value& document) const {
    if (JsonBytes(document) > options_.max_document_bytes) {
      throw Error(ErrorCode::kTooMuchMemory,
                  "the document is larger than " + std::to_string(options_.max_document_bytes) + " bytes");
    }
  }

  void SaveDeleted() {
    if (deleted_ != saved_deleted_) {
      WriteDeletedCount(writer_->connection(), deleted_);
    }
  }

  // A word index with many deleted documents is worth rewriting; one with few is not.
  bool MergeSome();
  bool ShrinkSome();
  bool Compact(std::chrono::milliseconds budget);

  template <typename Use>
  void Read(View view, Use use) {
    if (view == View::kLatest) {
      const std::lock_guard guard(write_lock_);
      if (writer_->connection().InTransaction()) {
        use(*writer_);
        return;
      }
    }
    ReaderPool::Reader reader = readers_.Take();
    use(*reader);
  }

  const Schema& schema() const { return *writer_->schema(); }
  std::shared_ptr<const Schema> shared_schema() const { return writer_->schema(); }

  const std::string path_;
  const OpenOptions options_;
  std::mutex write_lock_;
  std::unique_ptr<Database> writer_;  // guarded by write_lock_, as is all below
  std::optional<Error> lost_;         // changes were given up since the last commit, for this reason
  int64_t deleted_ = 0;               // documents whose words were deleted since the last merge
  int64_t saved_deleted_ = 0;         // the same, as the last commit has it
  bool merging_ = false;
  std::atomic<bool> uncommitted_ = false;
  ReaderPool readers_;
};

void Index::Impl::Commit() {
  const std::lock_guard guard(write_lock_);
  uncommitted_ = false;
  if (lost_) {
    const Error error = *lost_;
    RollBack();
    lost_.reset();
    throw Error(error);
  }
  if (!writer_->connection().InTransaction()) {
    return;
  }
  try {
    SaveDeleted();
    writer_->connection().Exec("COMMIT");
    saved_deleted_ = deleted_;
  } catch (...) {
    RollBack();
    throw;
  }
}

bool Index::Impl::MergeSome() {
  constexpr int64_t kWorthIt = 1'000;
  constexpr int kPages = 256;
  Connection& connection = writer_->connection();
  // The documents are counted one by one, so only when there is a reason.
  if (!merging_ && (deleted_ < kWorthIt || deleted_ * 10 < connection.QueryInt("SELECT count(*) FROM fts_docsize"))) {
    return false;
  }
  // A negative number begins a merge of everything into one; positive ones go on with it.
  const int before = sqlite3_total_changes(connection.handle());
  connection.Exec("INSERT INTO fts(fts, rank) VALUES('merge', " + std::to_string(merging_ ? kPages : -kPages) + ")");
  merging_ = sqlite3_total_changes(connection.handle()) - before >= 2;
  if (!merging_) {
    deleted_ = 0;
    SaveDeleted();
    saved_deleted_ = 0;
  }
  return merging_;
}

bool Index::Impl::ShrinkSome() {
  constexpr int64_t kPages = 1'024;
  Connection& connection = writer_->connection();
  const int64_t free_pages = connection.QueryInt("PRAGMA freelist_count");
  if (free_pages <= kPages && free_pages * 20 <= connection.QueryInt("PRAGMA page_count")) {
    return false;
  }
  connection.Exec("PRAGMA incremental_vacuum(" + std::to_string(kPages) + ")");
  return true;
}

bool Index::Impl::Compact(std::chrono::milliseconds budget) {
  const auto end = std::chrono::steady_clock::now() + budget;
  bool more = true;
  while (more) {
    {
      const std::lock_guard guard(write_lock_);
      if (writer_->connection().InTransaction()) {
        return true;
      }
      more = MergeSome() || ShrinkSome();
      if (!more && FileBytes(DatabaseFile(path_) + "-wal") > 0) {
        writer_->connection().Exec("PRAGMA wal_checkpoint(TRUNCATE)");
      }
    }
    if (std::chrono::steady_clock::now() >= end) {
      break;
    }
  }
  return more;
}

Index::Index(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Index::~Index() {
  Close();
}

std::unique_ptr<Index> Index::Create(const std::string& path, const Json::Value& mappings, const Json::Value& settings,
                                     const OpenOptions& options) {
  auto schema = std::make_shared<Schema>(mappings, settings);
  MakeDirectory(path);
  if (FileBytes(DatabaseFile(path)) > 0) {
    throw Error(ErrorCode::kIndexExists, "there is an index at " + path);
  }
  const std::string fresh = path + "/" + kNewName;
  RemoveDatabase(fresh);
  Database::Make(fresh, std::move(schema), options);
  ReplaceDatabase(fresh, DatabaseFile(path));
  return Open(path, options);
}

std::unique_ptr<Index> Index::Open(const std::string& path, const OpenOptions& options) {
  const std::string file = DatabaseFile(path);
  if (FileBytes(path + "/" + kRepairedName) > 0) {
    ReplaceDatabase(path + "/" + kRepairedName, file);
  }
  // SQLite removes the log when the last connection closes: one that is there is of a process that died.
  const bool unclean = FileBytes(file + "-wal") > 0;
  std::unique_ptr<Index> index(new Index(std::make_unique<Impl>(path, options)));
  if (unclean) {
    const std::string damage = FindDamage(*index->impl_->writer_, false);
    if (!damage.empty()) {
      throw Error(ErrorCode::kCorrupt, "the database is damaged: " + damage);
    }
  }
  if (index->impl_->writer_->format() < kFormat) {
    throw Error(ErrorCode::kOlderFormat, "the database is of an earlier version and has to be upgraded");
  }
  return index;
}

std::unique_ptr<Index> Index::OpenDamaged(const std::string& path, const OpenOptions& options) {
  return std::unique_ptr<Index>(new Index(std::make_unique<Impl>(path, options)));
}

void Index::Upgrade(const std::string& path) {
  Database(DatabaseFile(path)).Upgrade();
}

void Index::Remove(const std::string& path) {
  for (const char* name : {kDatabaseName, kRepairedName, kRepairingName, kNewName}) {
    RemoveDatabase(path + "/" + name);
  }
  std::error_code ignored;  // a folder with other things in it stays
  std::filesystem::remove(path, ignored);
}

std::vector<std::string> Index::FileNames() {
  std::vector<std::string> names;
  for (const std::string name : {kDatabaseName, kRepairedName}) {
    names.push_back(name);
    for (const char* suffix : kSideSuffixes) {
      names.push_back(name + suffix);
    }
  }
  return names;
}

void Index::Close() {
  if (!impl_) {
    return;
  }
  if (impl_->writer_->connection().InTransaction()) {
    sqlite3_exec(impl_->writer_->connection().handle(), "ROLLBACK", nullptr, nullptr, nullptr);
  }
  impl_->readers_.Close();  // before the writer, which empties the log when it is the last to go
  impl_.reset();
}

struct PreparedDocument::Parts {
  std::shared_ptr<const Schema> schema;
  Record record;
  std::string packed;
  std::exception_ptr problem;
};

PreparedDocument::PreparedDocument(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}
PreparedDocument::PreparedDocument(PreparedDocument&& other) noexcept = default;
PreparedDocument& PreparedDocument::operator=(PreparedDocument&& other) noexcept = default;
PreparedDocument::~PreparedDocument() = default;

void Index::Upsert(const std::string& doc_id, const Json::Value& document) {
  Upsert(doc_id, Prepare(Json::Value(document)));
}

PreparedDocument Index::Prepare(Json::Value&& document) const {
  auto parts = std::make_unique<PreparedDocument::Parts>();
  parts->schema = impl_->shared_schema();
  try {
    impl_->CheckSize(document);
    parts->record = parts->schema->ToRecord(std::move(document));
    parts->packed = PackTexts(parts->record);
  } catch (const Error&) {
    parts->problem = std::current_exception();
  }
  return PreparedDocument(std::move(parts));
}

bool Index::Fits(const PreparedDocument& document) const {
  const Schema& theirs = *document.parts_->schema;
  const Schema& ours = impl_->schema();
  return &theirs == &ours || (theirs.mappings() == ours.mappings() && theirs.settings() == ours.settings());
}

void Index::Upsert(const std::string& doc_id, PreparedDocument&& document) {
  const std::unique_ptr<PreparedDocument::Parts> parts = std::move(document.parts_);
  if (parts->problem) {
    std::rethrow_exception(parts->problem);
  }
  const Record& record = parts->record;
  impl_->Write([&](DocumentStore& store) {
    if (doc_id != record.path) {
      if (const auto id = store.FindId(doc_id)) {
        store.Delete(*id);
        ++impl_->deleted_;
      }
    }
    std::optional<StoredRecord> before = store.Find(record.path);
    if (!before) {
      store.Insert(record, parts->packed);
      return;
    }
    store.ReadTexts(*before);
    store.Replace(*before, record, parts->packed);
    ++impl_->deleted_;
  });
}

SetResult Index::Set(const std::string& doc_id, const Json::Value& changes) {
  impl_->CheckSize(changes);
  const Schema& schema = impl_->schema();
  bool texts = false;
  bool extra = false;
  for (const std::string& name : changes.isObject() ? changes.getMemberNames() : std::vector<std::string>()) {
    texts = texts || schema.NeedsTexts({name});
    extra = extra || schema.Find(name) == nullptr;
  }
  return impl_->Write([&](DocumentStore& store) {
    std::optional<StoredRecord> before = store.Find(doc_id);
    if (!before) {
      throw Error(ErrorCode::kNoSuchDocument, "no document has the id " + doc_id);
    }
    if (texts) {
      store.ReadTexts(*before);
    }
    if (extra) {
      store.ReadExtra(*before);
    }
    Record after = before->record;
    schema.Apply(Json::Value(changes), after);
    SetResult result;
    if (after.path != before->record.path) {
      if (const auto target = store.FindId(after.path)) {
        store.Delete(*target);
        ++impl_->deleted_;
        result.replaced = true;
      }
    }
    if (!texts && store.SameColumnWords(before->record, after)) {
      store.UpdateRow(*before, after, extra);
      return result;
    }
    if (!texts) {
      // The full text forgets a document's old words only when it is told all of them.
      store.ReadTexts(*before);
      after.texts = before->record.texts;
    }
    if (!extra) {
      store.ReadExtra(*before);
      after.extra = before->record.extra;
    }
    store.Replace(*before, after);
    ++impl_->deleted_;
    return result;
  });
}

bool Index::Delete(const std::string& doc_id) {
  return impl_->Write([&](DocumentStore& store) {
    const std::optional<int64_t> id = store.FindId(doc_id);
    if (id) {
      store.Delete(*id);
      ++impl_->deleted_;
    }
    return id.has_value();
  });
}

namespace {

// The statement that finds a question's documents; `columns` are of table doc as d.
Statement PrepareQuery(Connection& connection, const CompiledQuery& query, const std::string& columns,
                       const std::string& order) {
  const std::string from = query.match.empty()
                               ? " FROM doc d WHERE "
                               : " FROM fts CROSS JOIN doc d ON d.id = fts.rowid WHERE fts MATCH ? AND ";
  Statement statement(connection.handle(), "SELECT " + columns + from + query.where + order);
  if (!query.match.empty()) {
    statement.BindText(1, query.match);
  }
  BindAll(statement, query.match.empty() ? 1 : 2, query.parameters);
  return statement;
}

}  // namespace

int64_t Index::DeleteByQuery(const Json::Value& query) {
  constexpr size_t kMany = 2'000;
  const CompiledQuery compiled = Compile(ParseQsl(query, impl_->schema()));
  return impl_->Write([&](DocumentStore& store) {
    std::vector<int64_t> ids;
    {
      Statement statement = PrepareQuery(impl_->writer_->connection(), compiled, "d.id", "");
      while (statement.Step()) {
        ids.push_back(statement.Int(0));
      }
    }
    std::sort(ids.begin(), ids.end());
    std::optional<WordMergingPause> pause;
    if (ids.size() >= kMany) {
      pause.emplace(impl_->writer_->connection());
    }
    for (const int64_t id : ids) {
      store.Delete(id);
    }
    if (pause) {
      pause->End();
    }
    impl_->deleted_ += static_cast<int64_t>(ids.size());
    return static_cast<int64_t>(ids.size());
  });
}

void Index::Get(const Json::Value& query, const std::optional<std::vector<std::string>>& load_fields,
                const std::function<void(Json::Value&& hit)>& on_hit, View view) {
  const Schema& schema = impl_->schema();
  const CompiledQuery compiled = Compile(ParseQsl(query, schema));
  const bool texts = load_fields && schema.NeedsTexts(*load_fields);
  const bool extra = !load_fields || std::any_of(load_fields->begin(), load_fields->end(),
                                                 [&](const std::string& name) { return schema.Find(name) == nullptr; });
  impl_->Read(view, [&](Database& database) {
    DocumentStore& store = database.store();
    Statement statement = PrepareQuery(database.connection(), compiled, store.RowColumns(), " ORDER BY d.path");
    while (statement.Step()) {
      StoredRecord stored = store.ReadRow(statement);
      if (texts) {
        store.ReadTexts(stored);
      }
      if (extra) {
        store.ReadExtra(stored);
      }
      on_hit(schema.ToJson(stored.record, load_fields));
    }
  });
}

void Index::Commit() {
  impl_->Commit();
}
bool Index::HasUncommitted() const {
  return impl_->uncommitted_;
}

SearchResult Index::Search(const std::string& query, const SearchOptions& options) {
  ReaderPool::Reader reader = impl_->readers_.Take();
  return Searcher(*reader, options).Run(query);
}

std::vector<std::string> Index::Suggest(const std::string& prefix, size_t limit) {
  const std::string begin = Fold(prefix);
  const std::string end = begin + '\xff';  // above every UTF-8 text that begins so
  ReaderPool::Reader reader = impl_->readers_.Take();
  Statement statement(
      reader->connection().handle(),
      "SELECT word FROM suggestion WHERE word >= ?1 AND word < ?2 ORDER BY documents DESC, word LIMIT ?3");
  statement.Bind(1, std::string_view(begin)).Bind(2, std::string_view(end)).Bind(3, static_cast<int64_t>(limit));
  std::vector<std::string> words;
  while (statement.Step()) {
    words.emplace_back(statement.Bytes(0));
  }
  return words;
}

std::vector<std::string> Index::SuggestFor(Viewer& viewer, const std::string& prefix, size_t limit) {
  SearchOptions options;
  options.viewer = &viewer;
  options.sort = SearchOptions::Sort::kPath;  // nothing to rank
  options.viewer_limit = std::chrono::seconds(1);
  options.time_limit = std::chrono::seconds(3);
  ReaderPool::Reader reader = impl_->readers_.Take();
  return Searcher(*reader, options).Suggest(prefix, limit);
}

void Index::AddSuggestions(const std::string& doc_id) {
  impl_->Write([&](DocumentStore& store) {
    std::optional<StoredRecord> stored = store.Find(doc_id);
    if (!stored) {
      throw Error(ErrorCode::kNoSuchDocument, "no document has the id " + doc_id);
    }
    Connection& connection = impl_->writer_->connection();
    connection.Cached("INSERT OR IGNORE INTO meta VALUES('suggestions', 1)").Run();
    if (stored->suggested) {
      return;
    }
    store.ReadTexts(*stored);
    Statement& count = connection.Cached(
        "INSERT INTO suggestion VALUES(?1, 1) ON CONFLICT(word) DO UPDATE SET documents = documents + 1");
    for (const std::string& word : WordsToSuggest(impl_->schema(), stored->record)) {
      count.Bind(1, std::string_view(word)).Run();
    }
    store.MarkSuggested(stored->id);
  });
}

bool Index::SuggestionsAvailable() {
  ReaderPool::Reader reader = impl_->readers_.Take();
  Connection& connection = reader->connection();
  return connection.QueryInt("SELECT count(*) FROM meta WHERE name = 'suggestions'") > 0 ||
         connection.QueryInt("SELECT count(*) FROM (SELECT 1 FROM doc LIMIT 1)") == 0;
}

StatResult Index::Stat(bool check) {
  StatResult result;
  const std::string file = DatabaseFile(impl_->path_);
  result.bytes = FileBytes(file) + FileBytes(file + "-wal");
  result.uncommitted = impl_->uncommitted_;
  try {
    ReaderPool::Reader reader = impl_->readers_.Take();
    result.documents = reader->connection().QueryInt("SELECT count(*) FROM fts_docsize");
    result.problem = check ? FindDamage(*reader, true) : "";
  } catch (const Error& error) {
    if (error.code() != ErrorCode::kCorrupt) {
      throw;
    }
    result.problem = error.what();
  }
  return result;
}

bool Index::Compact(std::chrono::milliseconds budget) {
  return impl_->Compact(budget);
}

const Json::Value& Index::mappings() const {
  return impl_->schema().mappings();
}
const Json::Value& Index::settings() const {
  return impl_->schema().settings();
}
const std::string& Index::path() const {
  return impl_->path_;
}

}  // namespace search
