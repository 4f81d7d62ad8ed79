// One full-text index: the documents of a share, their fields, their words, on one SQLite database.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace search {

/// What went wrong. The numbers of 1200 and above go to clients unchanged; the others are this engine's own range.
enum class ErrorCode {
  kNoSuchDocument = 1200,  ///< no document has this path
  kTooMuchMemory = 1401,   ///< the document alone is over OpenOptions::max_document_bytes
  kAnswerTooLarge = 1207,  ///< the hits asked for take more than SearchOptions::max_bytes
  kBadDocument = 1210,     ///< a required field is missing, or a value's type is not its field's
  kBadQuery = 1211,        ///< the query cannot be read; the message says what and where
  kBadMappings = 1212,     ///< the mappings or settings of a new index make no sense
  kQueryTimeout = 1213,    ///< the query took longer than its limit
  kIndexExists = 1220,     ///< Create found a database at the path
  kNoDatabase = 1221,      ///< Open found none
  kCorrupt = 1222,         ///< the database is damaged: Repair it, or rebuild the share
  kDiskFull = 1223,        ///< no room; the index is as it was at the last commit
  kStorage = 1224,         ///< any other failure of the disk or of SQLite; the same holds
  kNewerFormat = 1225,     ///< the database was written by a later version of this daemon
  kOlderFormat = 1226,     ///< by an earlier one: Upgrade it
};

/// Everything that this engine throws (besides std::bad_alloc).
class Error : public std::runtime_error {
 public:
  Error(ErrorCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
  ErrorCode code() const { return code_; }

 private:
  ErrorCode code_;
};

/// Bounds of an open index.
struct OpenOptions {
  int64_t cache_bytes = 8 << 20;          ///< page cache of the writer, and of each reader
  int64_t batch_bytes = 4 << 20;          ///< memory for words that are not yet in the database file
  int64_t max_document_bytes = 64 << 20;  ///< a larger document is refused
  int64_t max_database_bytes = 0;         ///< the database file grows no further than this; 0: no bound
  size_t idle_readers = 4;                ///< connections kept open for the next search
};

/// Which state a reading call sees.
enum class View {
  kLatest,     ///< every change made so far; waits for the writing call in progress if there are uncommitted changes
  kCommitted,  ///< the last commit; never waits for a writer
};

struct SetResult {
  bool found = true;      ///< Set throws when it is not; always true here
  bool replaced = false;  ///< another document was at the target path and is gone
};

class Viewer;

struct SearchOptions {
  enum class Sort { kRelevance, kName, kPath, kSize, kModified };

  size_t offset = 0;
  size_t limit = 20;  ///< at most 10,000
  Sort sort = Sort::kRelevance;
  bool descending = false;  ///< ignored by kRelevance, which is always best first
  /// Whose eyes the answer is for, not owned; null: anybody's. All in the answer is of documents that it may see,
  /// counts and order too. Asking it may take as long as `viewer_limit`; then `more` is true, and nothing older is
  /// looked at.
  Viewer* viewer = nullptr;
  std::chrono::milliseconds viewer_limit{5'000};  ///< leave some of `time_limit` for the answer
  std::vector<std::string> load_fields;           ///< fields of each hit; the property id is in Hit::path anyway
  bool snippets = true;
  bool facets = true;
  std::string mark_begin = "<b>";  ///< put before each found word in a snippet
  std::string mark_end = "</b>";
  std::chrono::milliseconds time_limit{10'000};  ///< then ErrorCode::kQueryTimeout
  size_t max_bytes = size_t{1} << 30;            ///< of the hits; then ErrorCode::kAnswerTooLarge
  std::chrono::system_clock::time_point now = std::chrono::system_clock::now();  ///< what date:today counts from
};

struct Hit {
  std::string path;     ///< exact bytes
  double score = 0;     ///< higher is better; 0 unless sorted by relevance
  std::string snippet;  ///< text round the found words, with marks; "" when the hit has no text
  Json::Value fields;   ///< an object of load_fields
};

/// Counts of hits by value, most frequent first, at most 100 values.
using Facet = std::vector<std::pair<std::string, int64_t>>;

struct SearchResult {
  std::vector<Hit> hits;
  size_t bytes = 0;  ///< about what the hits take in memory
  int64_t total = 0;
  bool more = false;  ///< there are more than `total`, which is counted up to 100,000; pages reach no further
  /// False when there are more hits than are ranked and counted by facet one by one (1,000): then the facets are those
  /// of the newest, and the rank prefers hits in names, then the newest documents.
  bool exact = true;
  std::map<std::string, Facet> facets;  ///< "kind", "extension"
};

struct StatResult {
  int64_t documents = 0;  ///< uncommitted ones included
  int64_t bytes = 0;      ///< of the database and its write-ahead log
  bool uncommitted = false;
  std::string problem;  ///< of a check: what is damaged; "" when nothing is or none was asked for
};

class Schema;

/// A document that was checked and packed for an index: what takes time and needs no turn is done. If it cannot be
/// stored, it holds the reason.
class PreparedDocument {
 public:
  PreparedDocument(PreparedDocument&& other) noexcept;
  PreparedDocument& operator=(PreparedDocument&& other) noexcept;
  ~PreparedDocument();

 private:
  friend class Index;
  struct Parts;
  explicit PreparedDocument(std::unique_ptr<Parts> parts);
  std::unique_ptr<Parts> parts_;
};

/// A database directory with its documents. A document is a JSON object; it is identified by one of its fields, the
/// mappings' "property_id" (here called its path), which is unique. Paths and all other strings are bytes.
///
/// Changes are made in one transaction that lasts until Commit: a crash, a full disk or Close without Commit leave the
/// state of the last Commit. When a change fails because of the disk (kDiskFull, kStorage, kCorrupt), all changes since
/// the last commit are gone; the next Commit gives up what came after them too, and throws the same error once.
///
/// Threads: any thread may call any function but Close and the destructor. Writing calls exclude each other. Reading
/// calls with View::kCommitted run side by side on connections of their own and never wait for a writer.
class Index {
 public:
  /// Makes the directory `path` (and its parents) if it is missing, and an empty index in it.
  ///
  /// `mappings` is {"property_id": FIELD, "default": {…}, "properties": {FIELD: {…}, …}}, each {…} of "type" ("string",
  /// "text", "bool", "int", "double"), "analyzer" ("nimostandard", "keyword", "white space", "white space escaped"),
  /// "preprocess" (list of "tolower", "ngram", "list_ancestor"), "required", "stored", "_all". `settings` is an object;
  /// "languages" (list of Snowball names, default ["english"]) says whose stems are kept; other members are kept.
  /// Throws kBadMappings, kIndexExists, kStorage, kDiskFull.
  static std::unique_ptr<Index> Create(const std::string& path, const Json::Value& mappings,
                                       const Json::Value& settings, const OpenOptions& options = {});

  /// Opens what Create made. After an unclean end (a crash, a kill) the whole database is checked, which reads it all.
  /// Throws kNoDatabase, kCorrupt, kNewerFormat, kOlderFormat, kStorage.
  static std::unique_ptr<Index> Open(const std::string& path, const OpenOptions& options = {});

  /// Opens an index that Open found damaged, for reading what can be read while Repair is at work; it has to be closed
  /// before Open. Throws as Open does.
  static std::unique_ptr<Index> OpenDamaged(const std::string& path, const OpenOptions& options = {});

  /// Brings the database of an earlier version to this one's format, in one transaction: a crash leaves the old one or
  /// the new one. No index may be open at `path`. Throws kNoDatabase, kCorrupt, kNewerFormat, kDiskFull, kStorage.
  static void Upgrade(const std::string& path);

  /// Removes the index's files from `path`, and the directory if nothing else is in it. No index may be open there.
  /// Files that are not there are no error. Throws kStorage.
  static void Remove(const std::string& path);

  /// Names of the files, in the index's directory, that Create and later work make; what a mover has to move.
  static std::vector<std::string> FileNames();

  /// Rebuilds a damaged index from what can be read of its stored documents, into a new database that the next Open
  /// puts in the place of the old one; what was there stays until then, and may be open, but nobody may change it
  /// meanwhile. Returns the number of documents saved; when SQLite reports rows that cannot be read, they are skipped,
  /// and `*lost` (may be null) is set. Throws kCorrupt when not even the mappings can be read: the share has to be
  /// rebuilt; kNoDatabase, kDiskFull, kStorage.
  static int64_t Repair(const std::string& path, bool* lost, const OpenOptions& options = {});

  /// Like Close; uncommitted changes are given up.
  ~Index();
  Index(const Index&) = delete;
  Index& operator=(const Index&) = delete;

  /// Gives up uncommitted changes and closes the files. No other call may be in progress or follow.
  void Close();

  /// Stores `document` under its property id; a document at `doc_id`, and one at that property id, are replaced.
  /// Members that are null count as absent. Throws kBadDocument (nothing is changed), kTooMuchMemory, disk errors.
  void Upsert(const std::string& doc_id, const Json::Value& document);

  /// The part of Upsert that waits for nobody and that no other call waits for. Throws std::bad_alloc alone; what is
  /// wrong with the document, Upsert throws.
  PreparedDocument Prepare(Json::Value&& document) const;
  /// Whether a document was prepared for an index of the same mappings and settings as this one has.
  bool Fits(const PreparedDocument& document) const;
  /// The rest of Upsert, for a document that fits.
  void Upsert(const std::string& doc_id, PreparedDocument&& document);

  /// Changes members of the document at `doc_id`: null removes one, others are set. A new property id moves the
  /// document; a document at the target is replaced by it. Texts that do not change are not read.
  /// Throws kNoSuchDocument, kBadDocument, kTooMuchMemory, disk errors.
  SetResult Set(const std::string& doc_id, const Json::Value& changes);

  /// Returns whether there was one. Throws disk errors.
  bool Delete(const std::string& doc_id);

  /// Deletes every document that `query` ({"qsl": …}, see Get) finds, uncommitted ones too; returns how many.
  int64_t DeleteByQuery(const Json::Value& query);

  /// Calls `on_hit` with an object of fields for each document that `query` finds, in the order of their paths' bytes.
  /// It may not call this index.
  ///
  /// `query` is {"qsl": Q}; Q is an object with one member:
  ///   {"term": {FIELD: VALUE}}     the field is exactly VALUE, or, of a field with words, has the word VALUE;
  ///                                of a "list_ancestor" field: the folder VALUE is the stored one or above it
  ///   {"prefix": {FIELD: STRING}}  the field, or one of its words, begins with the bytes of STRING
  ///   {"match": {FIELD: STRING}}   the field has all the words of STRING, in any order and any form
  ///   {"phrase": {FIELD: STRING}}  the field has these words, one after the other, in this form
  ///   {"range": {FIELD: {"gt"|"gte"|"lt"|"lte": VALUE, …}}}
  ///   {"bool": {"must": [Q…], "should": [Q…], "must_not": [Q…], "filter": [Q…]}}
  ///   {"match_all": {}}
  /// FIELD "_all" means every field that is in the catch-all search. `load_fields` says which members a hit has;
  /// without it: all stored ones that need no text to be read (numbers, paths, names). Absent members stay absent.
  /// Throws kBadQuery, kCorrupt, kStorage, and what `on_hit` throws.
  void Get(const Json::Value& query, const std::optional<std::vector<std::string>>& load_fields,
           const std::function<void(Json::Value&& hit)>& on_hit, View view = View::kLatest);

  /// Makes every change so far durable and visible to View::kCommitted. Throws kDiskFull, kStorage, kCorrupt: then
  /// the changes since the last commit are gone.
  void Commit();

  /// True when there are changes that Commit has not made durable.
  bool HasUncommitted() const;

  /// Answers a question in people's language on the last commit: words (also parts of file names), "phrases", -not,
  /// OR, parentheses, word*, FIELD:value, ext:, type:, folder:, size:>10M, size:1k..5M, date:2021-05,
  /// date:>=2021-01-02, date:today. docs/protocols.md tells all of it. Throws kBadQuery, kQueryTimeout,
  /// kAnswerTooLarge, kCorrupt, kStorage.
  SearchResult Search(const std::string& query, const SearchOptions& options = {});

  /// Words that begin with `prefix` (case and accents do not matter), of most documents first.
  std::vector<std::string> Suggest(const std::string& prefix, size_t limit = 10);

  /// The same for one person's eyes: words of the newest hundred documents that have one and that the viewer may see.
  /// They need not have been counted. Looks for them for about a second. Throws kQueryTimeout, kCorrupt, kStorage.
  std::vector<std::string> SuggestFor(Viewer& viewer, const std::string& prefix, size_t limit = 10);

  /// Counts the words of the document at `doc_id` for Suggest; once for each document, until it is upserted anew.
  /// From the next Commit on SuggestionsAvailable says true. Throws kNoSuchDocument, disk errors.
  void AddSuggestions(const std::string& doc_id);

  /// Whether AddSuggestions has been called and committed, or the index has no documents.
  bool SuggestionsAvailable();

  /// Numbers of this index; with `check`, every page is read and verified, which takes time but no lock.
  /// Damage is told in StatResult::problem, not thrown.
  StatResult Stat(bool check);

  /// Tidies up for at most about `budget`: merges what deletions left, gives free pages back to the file system,
  /// empties the write-ahead log. For idle times; does nothing while there are uncommitted changes. Returns whether
  /// there is more to do. Throws disk errors.
  bool Compact(std::chrono::milliseconds budget);

  const Json::Value& mappings() const;
  const Json::Value& settings() const;
  const std::string& path() const;

 private:
  class Impl;
  explicit Index(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace search
