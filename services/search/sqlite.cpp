// Owners of SQLite's handles.
#include "services/search/sqlite.h"

#include <cerrno>
#include <new>

#include "services/search/index.h"

namespace search {
namespace {

ErrorCode CodeOf(sqlite3* database, int code) {
  const int system_error = database != nullptr ? sqlite3_system_errno(database) : 0;
  switch (code & 0xff) {
    case SQLITE_FULL:
      return ErrorCode::kDiskFull;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return ErrorCode::kCorrupt;
    case SQLITE_INTERRUPT:
      return ErrorCode::kQueryTimeout;
    case SQLITE_IOERR:
      // A write-ahead index that cannot grow is reported as an I/O error, not as a full disk.
      return system_error == ENOSPC || system_error == EDQUOT ? ErrorCode::kDiskFull : ErrorCode::kStorage;
    default:
      return ErrorCode::kStorage;
  }
}

}  // namespace

void ThrowSqlite(sqlite3* database, int code, const std::string& doing) {
  if ((code & 0xff) == SQLITE_NOMEM) {
    throw std::bad_alloc();
  }
  const ErrorCode error = CodeOf(database, code);
  const char* text = database != nullptr ? sqlite3_errmsg(database) : sqlite3_errstr(code);
  throw Error(error, doing + ": " + text + " (SQLite " + std::to_string(code) + ")");
}

Statement::Statement(sqlite3* database, const std::string& sql) : database_(database) {
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v3(database, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                                      &statement, nullptr);
  handle_.reset(statement);
  Check(code, "preparing a statement");
}

void Statement::Check(int code, const char* doing) const {
  if (code != SQLITE_OK) {
    ThrowSqlite(database_, code, doing);
  }
}

Statement& Statement::Bind(int parameter, int64_t value) {
  Check(sqlite3_bind_int64(handle_.get(), parameter, value), "binding");
  return *this;
}

Statement& Statement::Bind(int parameter, double value) {
  Check(sqlite3_bind_double(handle_.get(), parameter, value), "binding");
  return *this;
}

Statement& Statement::Bind(int parameter, std::string_view bytes) {
  // A null pointer would bind NULL, not the empty string.
  const char* data = bytes.data() != nullptr ? bytes.data() : "";
  Check(sqlite3_bind_blob64(handle_.get(), parameter, data, bytes.size(), SQLITE_STATIC), "binding");
  return *this;
}

Statement& Statement::BindText(int parameter, std::string_view text) {
  const char* data = text.data() != nullptr ? text.data() : "";
  Check(sqlite3_bind_text64(handle_.get(), parameter, data, text.size(), SQLITE_STATIC, SQLITE_UTF8), "binding");
  return *this;
}

Statement& Statement::BindNull(int parameter) {
  Check(sqlite3_bind_null(handle_.get(), parameter), "binding");
  return *this;
}

Statement& Statement::BindPointer(int parameter, void* pointer, const char* type) {
  Check(sqlite3_bind_pointer(handle_.get(), parameter, pointer, type, nullptr), "binding");
  return *this;
}

bool Statement::Step() {
  const int code = sqlite3_step(handle_.get());
  if (code == SQLITE_ROW) {
    return true;
  }
  if (code != SQLITE_DONE) {
    ThrowSqlite(database_, code, "running a statement");
  }
  return false;
}

void Statement::Run() {
  const ScopedReset reset(*this);
  Step();
}

void Statement::Reset() {
  sqlite3_reset(handle_.get());
  sqlite3_clear_bindings(handle_.get());
}

std::string_view Statement::Bytes(int column) const {
  const auto* data = static_cast<const char*>(sqlite3_column_blob(handle_.get(), column));
  return data != nullptr ? std::string_view(data, static_cast<size_t>(sqlite3_column_bytes(handle_.get(), column)))
                         : std::string_view();
}

Connection::Connection(const std::string& path, int flags) {
  sqlite3* database = nullptr;
  const int code = sqlite3_open_v2(path.c_str(), &database, flags | SQLITE_OPEN_NOMUTEX, nullptr);
  handle_.reset(database);
  if (code != SQLITE_OK) {
    ThrowSqlite(database, code, "opening " + path);
  }
  sqlite3_extended_result_codes(database, 1);
}

void Connection::Exec(const std::string& sql) {
  const int code = sqlite3_exec(handle_.get(), sql.c_str(), nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) {
    ThrowSqlite(handle_.get(), code, "running " + sql.substr(0, 40));
  }
}

Statement& Connection::Cached(const std::string& sql) {
  const auto found = statements_.find(sql);
  return found != statements_.end() ? found->second
                                    : statements_.emplace(sql, Statement(handle_.get(), sql)).first->second;
}

int64_t Connection::QueryInt(const std::string& sql) {
  Statement statement(handle_.get(), sql);
  return statement.Step() ? statement.Int(0) : 0;
}

}  // namespace search
