// Repair: a new database from whatever documents of the damaged one can be read.
#include <sys/stat.h>

#include <algorithm>
#include <optional>

#include "services/search/database.h"
#include "services/search/index.h"

namespace search {
namespace {

constexpr int64_t kBatch = 2'000;
// A damaged page hides some hundred documents that follow one another. Behind so many that cannot be read, and no known
// end, there are none.
constexpr int64_t kLongestGap = 100'000;

class Salvage {
 public:
  Salvage(Database& from, Database& to) : from_(from), to_(to) {}

  int64_t Run() {
    const int64_t last = LastId();
    to_.connection().Exec("BEGIN IMMEDIATE");
    int64_t next = 1;
    int64_t unread = 0;
    while (next <= last && unread < kLongestGap) {
      try {
        next = CopyFrom(next) + 1;
        unread = 0;
        if (next == 0) {
          break;
        }
      } catch (const Error& error) {
        if (error.code() != ErrorCode::kCorrupt) {
          throw;
        }
        lost_ = true;
        next = std::max(next, reached_) + 1;
        ++unread;
      }
    }
    to_.connection().Exec("COMMIT");
    return saved_;
  }

  bool lost() const { return lost_; }

 private:
  int64_t LastId() {
    int64_t last = 0;
    for (const char* sql :
         {"SELECT max(id) FROM doc", "SELECT max(id) FROM texts", "SELECT max(id) FROM fts_docsize"}) {
      try {
        last = std::max(last, from_.connection().QueryInt(sql));
      } catch (const Error&) {
        lost_ = true;
      }
    }
    return last > 0 || !lost_ ? last : INT64_MAX - 1;
  }

  // Copies documents from the id `next` on; returns -1 at the end of all. When a document cannot be read, reached_ is
  // its number or below.
  int64_t CopyFrom(int64_t next) {
    reached_ = next;
    Statement rows(from_.connection().handle(), "SELECT " + from_.store().RowColumns() +
                                                    " FROM doc d WHERE d.id >= ?1 ORDER BY d.id LIMIT " +
                                                    std::to_string(kBatch));
    rows.Bind(1, next);
    int64_t last = -2;
    while (rows.Step()) {
      StoredRecord stored = from_.store().ReadRow(rows);
      last = stored.id;
      reached_ = stored.id;
      Copy(stored);
    }
    return last == -2 ? -1 : last;
  }

  void Copy(StoredRecord& stored) {
    for (auto read : {&Salvage::ReadExtra, &Salvage::ReadTexts}) {
      try {
        (this->*read)(stored);
      } catch (const Error& error) {
        if (error.code() != ErrorCode::kCorrupt) {
          throw;
        }
        lost_ = true;
      }
    }
    // A damaged path may be anything, also another document's.
    if (stored.record.path.empty() || to_.store().FindId(stored.record.path)) {
      lost_ = true;
      return;
    }
    to_.store().Insert(stored.record);
    ++saved_;
  }

  void ReadExtra(StoredRecord& stored) { from_.store().ReadExtra(stored); }
  void ReadTexts(StoredRecord& stored) { from_.store().ReadTexts(stored); }

  Database& from_;
  Database& to_;
  int64_t saved_ = 0;
  int64_t reached_ = 0;
  bool lost_ = false;
};

// Makes the database `making` of the documents in `damaged`; returns their number.
int64_t SaveInto(const std::string& making, const std::string& damaged, bool* lost, const OpenOptions& options) {
  Database from(damaged);
  const std::unique_ptr<Database> to = Database::Make(making, from.schema(), options);
  to->PrepareToWrite(options);
  Salvage salvage(from, *to);
  const int64_t saved = salvage.Run();
  if (lost != nullptr) {
    *lost = salvage.lost();
  }
  return saved;
}

// It may be what fills the disk.
void RemoveUnfinished(const std::string& making) {
  try {
    RemoveDatabase(making);
  } catch (const Error&) {
    // The next repair begins with this; why this one failed is what counts.
  }
}

}  // namespace

int64_t Index::Repair(const std::string& path, bool* lost, const OpenOptions& options) {
  const std::string making = path + "/" + kRepairingName;
  RemoveDatabase(making);
  try {
    const int64_t saved = SaveInto(making, DatabaseFile(path), lost, options);
    // Complete from here on.
    ReplaceDatabase(making, path + "/" + kRepairedName);
    return saved;
  } catch (...) {
    RemoveUnfinished(making);
    throw;
  }
}

}  // namespace search
