// Another program's hand in the database of an index.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

namespace orbisk::test {

/// A connection to "index.sqlite" in a folder. A program that includes this links SQLite.
class ForeignConnection {
 public:
  explicit ForeignConnection(const std::string& folder) {
    EXPECT_EQ(SQLITE_OK, sqlite3_open((folder + "/index.sqlite").c_str(), &handle_));
  }
  ~ForeignConnection() { sqlite3_close(handle_); }
  ForeignConnection(const ForeignConnection&) = delete;
  ForeignConnection& operator=(const ForeignConnection&) = delete;

  void Exec(const std::string& sql) {
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, nullptr))
        << sql << ": " << sqlite3_errmsg(handle_);
  }

 private:
  sqlite3* handle_ = nullptr;
};

}  // namespace orbisk::test
