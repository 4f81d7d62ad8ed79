// The files of an index, and connections to them.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "services/search/index.h"
#include "services/search/schema.h"
#include "services/search/sqlite.h"
#include "services/search/store.h"

namespace search {

inline constexpr char kDatabaseName[] = "index.sqlite";
/// A repaired database that is complete and waits to take the place of the damaged one.
inline constexpr char kRepairedName[] = "index.sqlite.repaired";
/// A repaired database in the making; worth nothing.
inline constexpr char kRepairingName[] = "index.sqlite.repairing";
/// A new database in the making.
inline constexpr char kNewName[] = "index.sqlite.new";
/// What SQLite adds to the names of databases in use.
inline constexpr const char* kSideSuffixes[] = {"-wal", "-shm", "-journal"};

std::string DatabaseFile(const std::string& directory);
/// Removes a database and what SQLite keeps beside it. Missing files are no error. Throws Error kStorage.
void RemoveDatabase(const std::string& file);
/// Puts the finished, closed database `from` in the place of `to`, of which nothing is left. A crash in between leaves
/// `from`, and the same call finishes. Throws Error kStorage, kDiskFull.
void ReplaceDatabase(const std::string& from, const std::string& to);

/// A connection and what stands on it.
class Database {
 public:
  /// Opens an existing database of any format up to ours. Its schema is read from it.
  /// Throws Error kNoDatabase, kCorrupt, kNewerFormat, kStorage.
  explicit Database(const std::string& file);
  /// Another connection to a database with this schema.
  Database(const std::string& file, std::shared_ptr<const Schema> schema);
  /// Makes a new database. Throws Error kIndexExists, kDiskFull, kStorage.
  static std::unique_ptr<Database> Make(const std::string& file, std::shared_ptr<const Schema> schema,
                                        const OpenOptions& options);

  Connection& connection() { return connection_; }
  DocumentStore& store() { return *store_; }
  const std::shared_ptr<const Schema>& schema() const { return schema_; }
  /// At most kFormat. With a lower one, documents can be read, and nothing else.
  int64_t format() const { return format_; }

  /// Brings the database to kFormat, or leaves it as it is. Throws Error kCorrupt, kDiskFull, kStorage.
  void Upgrade();

  void PrepareToWrite(const OpenOptions& options);
  void PrepareToRead(const OpenOptions& options);

 private:
  Database(const std::string& file, int flags);
  void Attach(std::shared_ptr<const Schema> schema);

  Connection connection_;
  int64_t format_ = kFormat;
  std::shared_ptr<const Schema> schema_;
  std::unique_ptr<DocumentStore> store_;
};

/// What is wrong with the database; "" for nothing. Quick: pages and their order. Thorough: also that indexes agree
/// with tables, that every text can be read, and every word's list.
std::string FindDamage(Database& database, bool thorough);

/// Connections for reading, kept for the next reader. Any thread.
class ReaderPool {
 public:
  ReaderPool(std::string file, std::shared_ptr<const Schema> schema, OpenOptions options);

  /// A reader in use; it goes back to the pool at destruction, and reads one state of the database until then.
  class Reader {
   public:
    Reader(ReaderPool& pool, std::unique_ptr<Database> database);
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    Database& operator*() { return *database_; }
    Database* operator->() { return database_.get(); }

   private:
    ReaderPool& pool_;
    std::unique_ptr<Database> database_;
  };

  Reader Take();
  void Close();

 private:
  const std::string file_;
  const std::shared_ptr<const Schema> schema_;
  const OpenOptions options_;
  std::mutex lock_;
  std::vector<std::unique_ptr<Database>> idle_;  // guarded by lock_
};

}  // namespace search
