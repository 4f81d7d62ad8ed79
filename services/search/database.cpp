// Opening of databases, and what their connections are set to.
#include "services/search/database.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "services/search/fts.h"

namespace search {
namespace {

bool Exists(const std::string& file) {
  struct stat status {};
  return stat(file.c_str(), &status) == 0;
}

// Before anything else is read: of a later format we know nothing.
int64_t ReadFormat(Connection& connection) {
  if (connection.QueryInt("SELECT count(*) FROM sqlite_master WHERE name = 'meta'") == 0) {
    throw Error(ErrorCode::kCorrupt, "the database has no table of its settings");
  }
  const int64_t format = connection.QueryInt("SELECT value FROM meta WHERE name = 'format'");
  if (format > kFormat) {
    throw Error(ErrorCode::kNewerFormat, "a later version wrote the database: it has format " + std::to_string(format) +
                                             ", this daemon knows " + std::to_string(kFormat));
  }
  if (format < 1) {
    throw Error(ErrorCode::kCorrupt, "the database does not say which format it has");
  }
  return format;
}

std::shared_ptr<const Schema> ReadSchema(Connection& connection) {
  Statement statement(connection.handle(), "SELECT name, value FROM meta");
  Json::Value mappings;
  Json::Value settings;
  while (statement.Step()) {
    const std::string_view name = statement.Bytes(0);
    if (name == "mappings") {
      mappings = ParseJson(statement.Bytes(1));
    } else if (name == "settings") {
      settings = ParseJson(statement.Bytes(1));
    }
  }
  try {
    return std::make_shared<Schema>(mappings, settings);
  } catch (const Error& error) {
    throw Error(ErrorCode::kCorrupt, std::string("the mappings cannot be read: ") + error.what());
  }
}

std::string Pages(int64_t bytes) {
  return std::to_string(-std::max<int64_t>(bytes / 1024, 64));
}

// Rows of a check that says "ok", or what is wrong.
std::string CheckPages(Connection& connection, const std::string& pragma) {
  Statement statement(connection.handle(), pragma);
  const std::string said = statement.Step() ? std::string(statement.Bytes(0)) : "no answer";
  return said == "ok" ? "" : said;
}

std::string CheckTexts(Database& database) {
  Statement statement(database.connection().handle(), "SELECT data FROM texts");
  while (statement.Step()) {
    Record record;
    UnpackTexts(statement.Bytes(0), record);
  }
  return "";
}

}  // namespace

std::string DatabaseFile(const std::string& directory) {
  return directory + "/" + kDatabaseName;
}

void RemoveDatabase(const std::string& file) {
  for (const char* suffix : {"", kSideSuffixes[0], kSideSuffixes[1], kSideSuffixes[2]}) {
    if (unlink((file + suffix).c_str()) != 0 && errno != ENOENT) {
      const int error = errno;
      throw Error(ErrorCode::kStorage, "removing " + file + suffix + ": " + strerror(error));
    }
  }
}

void ReplaceDatabase(const std::string& from, const std::string& to) {
  const auto check = [&](bool good) {
    if (!good) {
      const int error = errno;
      throw Error(error == ENOSPC || error == EDQUOT ? ErrorCode::kDiskFull : ErrorCode::kStorage,
                  "putting " + from + " in place: " + strerror(error));
    }
  };
  // The old log must not be left to the new database.
  for (const char* suffix : kSideSuffixes) {
    check(unlink((to + suffix).c_str()) == 0 || errno == ENOENT);
  }
  check(rename(from.c_str(), to.c_str()) == 0);
  const int directory = open(to.substr(0, to.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  check(directory >= 0);
  const bool synced = fsync(directory) == 0;
  const int error = errno;
  close(directory);
  errno = error;
  check(synced);
}

Database::Database(const std::string& file, int flags) : connection_(file, flags) {}

Database::Database(const std::string& file)
    : connection_(Exists(file) ? file : throw Error(ErrorCode::kNoDatabase, "no database at " + file),
                  SQLITE_OPEN_READWRITE),
      format_(ReadFormat(connection_)) {
  Attach(ReadSchema(connection_));
}

Database::Database(const std::string& file, std::shared_ptr<const Schema> schema)
    : Database(file, SQLITE_OPEN_READWRITE) {
  Attach(std::move(schema));
}

void Database::Attach(std::shared_ptr<const Schema> schema) {
  schema_ = std::move(schema);
  RegisterFunctions(connection_.handle(), schema_);
  store_ = std::make_unique<DocumentStore>(connection_, *schema_);
}

std::unique_ptr<Database> Database::Make(const std::string& file, std::shared_ptr<const Schema> schema,
                                         const OpenOptions& options) {
  // SQLite would give it the mode of any file; the log takes the database's mode.
  const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0) {
    const int error = errno;
    throw Error(error == ENOSPC || error == EDQUOT ? ErrorCode::kDiskFull
                : error == EEXIST                  ? ErrorCode::kIndexExists
                                                   : ErrorCode::kStorage,
                "making " + file + ": " + strerror(error));
  }
  close(descriptor);
  std::unique_ptr<Database> database(new Database(file, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE));
  database->Attach(std::move(schema));
  Connection& connection = database->connection();
  connection.Exec("PRAGMA page_size = 4096");
  connection.Exec("PRAGMA auto_vacuum = INCREMENTAL");
  connection.Exec("PRAGMA journal_mode = WAL");
  connection.Exec("BEGIN IMMEDIATE");
  CreateTables(connection, *database->schema());
  connection.Exec("INSERT INTO fts(fts, rank) VALUES('hashsize', " + std::to_string(options.batch_bytes) + ")");
  connection.Exec("COMMIT");
  return database;
}

// With SQLite's own small cache: the writer's larger one saves no time, and two and a half times as much is written.
void Database::Upgrade() {
  if (format_ == kFormat) {
    return;
  }
  constexpr int kPatienceMs = 60'000;  // somebody may be looking into the file
  sqlite3_busy_timeout(connection_.handle(), kPatienceMs);
  connection_.Exec("BEGIN IMMEDIATE");
  store_->Upgrade(format_);
  connection_.Exec("COMMIT");
  format_ = kFormat;
}

void Database::PrepareToWrite(const OpenOptions& options) {
  connection_.Exec("PRAGMA cache_size = " + Pages(options.cache_bytes));
  // In WAL mode NORMAL would let a power cut take commits back.
  connection_.Exec("PRAGMA synchronous = FULL");
  connection_.Exec("PRAGMA wal_autocheckpoint = 4000");
  connection_.Exec("PRAGMA journal_size_limit = 67108864");
  if (options.max_database_bytes > 0) {
    connection_.Exec("PRAGMA max_page_count = " +
                     std::to_string(std::max<int64_t>(options.max_database_bytes / 4096, 1)));
  }
}

void Database::PrepareToRead(const OpenOptions& options) {
  connection_.Exec("PRAGMA cache_size = " + Pages(options.cache_bytes));
  connection_.Exec("PRAGMA query_only = 1");
  sqlite3_busy_timeout(connection_.handle(), 1'000);  // a reader may find another one recovering the log
}

std::string FindDamage(Database& database, bool thorough) {
  Connection& connection = database.connection();
  try {
    std::string damage = CheckPages(connection, thorough ? "PRAGMA integrity_check(1)" : "PRAGMA quick_check(1)");
    if (damage.empty() &&
        connection.QueryInt("SELECT count(*) FROM doc") != connection.QueryInt("SELECT count(*) FROM fts_docsize")) {
      damage = "documents and words do not belong together";
    }
    if (damage.empty() && thorough) {
      connection.QueryInt("SELECT sum(doc + cnt) FROM vocabulary");  // goes through every list of every word
      damage = CheckTexts(database);
    }
    return damage;
  } catch (const Error& error) {
    if (error.code() != ErrorCode::kCorrupt) {
      throw;
    }
    return error.what();
  }
}

ReaderPool::ReaderPool(std::string file, std::shared_ptr<const Schema> schema, OpenOptions options)
    : file_(std::move(file)), schema_(std::move(schema)), options_(options) {}

ReaderPool::Reader ReaderPool::Take() {
  std::unique_ptr<Database> database;
  {
    const std::lock_guard guard(lock_);
    if (!idle_.empty()) {
      database = std::move(idle_.back());
      idle_.pop_back();
    }
  }
  if (!database) {
    database = std::make_unique<Database>(file_, schema_);
    database->PrepareToRead(options_);
  }
  database->connection().Exec("BEGIN");
  return Reader(*this, std::move(database));
}

void ReaderPool::Close() {
  const std::lock_guard guard(lock_);
  idle_.clear();
}

ReaderPool::Reader::Reader(ReaderPool& pool, std::unique_ptr<Database> database)
    : pool_(pool), database_(std::move(database)) {}

ReaderPool::Reader::~Reader() {
  sqlite3* handle = database_->connection().handle();
  sqlite3_progress_handler(handle, 0, nullptr, nullptr);
  // A connection that cannot end its transaction is not used again.
  if (sqlite3_exec(handle, "ROLLBACK", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return;
  }
  const std::lock_guard guard(pool_.lock_);
  if (pool_.idle_.size() < pool_.options_.idle_readers) {
    pool_.idle_.push_back(std::move(database_));
  }
}

}  // namespace search
