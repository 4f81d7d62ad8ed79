// SQLite with owners for its handles, and its failures as search::Error.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace search {

/// Throws the Error that stands for the result code `code` of `database` (may be null); std::bad_alloc for a lack of
/// memory. `doing` says what failed.
[[noreturn]] void ThrowSqlite(sqlite3* database, int code, const std::string& doing);

/// A prepared statement. Parameters count from 1, columns from 0. Used by one thread at a time.
class Statement {
 public:
  /// Throws kStorage, kCorrupt.
  Statement(sqlite3* database, const std::string& sql);

  Statement& Bind(int parameter, int64_t value);
  Statement& Bind(int parameter, double value);
  /// Bytes are bound as BLOB. They must live until the statement is reset.
  Statement& Bind(int parameter, std::string_view bytes);
  Statement& BindText(int parameter, std::string_view text);
  Statement& BindNull(int parameter);
  /// For a function of this program's own, which asks for `type`. What it points to must live until the reset.
  Statement& BindPointer(int parameter, void* pointer, const char* type);

  /// Goes to the next row; false at the end.
  bool Step();
  /// Runs a statement without rows, and resets it.
  void Run();
  void Reset();

  bool IsNull(int column) const { return sqlite3_column_type(handle_.get(), column) == SQLITE_NULL; }
  int Type(int column) const { return sqlite3_column_type(handle_.get(), column); }
  int64_t Int(int column) const { return sqlite3_column_int64(handle_.get(), column); }
  double Double(int column) const { return sqlite3_column_double(handle_.get(), column); }
  /// Valid until the next Step or Reset.
  std::string_view Bytes(int column) const;

 private:
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  void Check(int code, const char* doing) const;

  sqlite3* database_;
  std::unique_ptr<sqlite3_stmt, Finalizer> handle_;
};

/// Resets a statement when the scope ends, however it ends.
class ScopedReset {
 public:
  explicit ScopedReset(Statement& statement) : statement_(statement) {}
  ~ScopedReset() { statement_.Reset(); }
  ScopedReset(const ScopedReset&) = delete;
  ScopedReset& operator=(const ScopedReset&) = delete;

 private:
  Statement& statement_;
};

/// A connection to a database. Used by one thread at a time.
class Connection {
 public:
  /// `flags` as of sqlite3_open_v2.
  Connection(const std::string& path, int flags);

  void Exec(const std::string& sql);
  /// The statement of this text, made once; its user resets it.
  Statement& Cached(const std::string& sql);
  /// The first column of the first row of `sql`; 0 when there is none.
  int64_t QueryInt(const std::string& sql);
  bool InTransaction() const { return sqlite3_get_autocommit(handle_.get()) == 0; }
  sqlite3* handle() const { return handle_.get(); }

 private:
  struct Closer {
    void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
  };
  std::unique_ptr<sqlite3, Closer> handle_;
  std::map<std::string, Statement, std::less<>> statements_;  // goes before the handle
};

}  // namespace search
