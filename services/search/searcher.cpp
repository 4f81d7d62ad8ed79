// Search: all hits are counted; the newest and those in names are ranked; one page of them is read.
#include "services/search/searcher.h"

#include <algorithm>
#include <map>
#include <unordered_map>
#include <utility>

#include "services/search/snippet.h"
#include "services/search/suggestions.h"
#include "services/search/vocabulary.h"
#include "services/search/words.h"

namespace search {
namespace {

// Ranking costs some microseconds for a hit. Who gets more hits than this has asked for a word that tells little.
constexpr int64_t kRankedHits = 1'000;
// Counting costs a fraction of a microsecond for a hit; nobody needs to know how many millions there are.
constexpr size_t kCountedHits = 100'000;
constexpr size_t kMaxLimit = 10'000;
constexpr size_t kFacetValues = 100;
// Candidates that a viewer is asked about at once: between two batches the clock is looked at.
constexpr size_t kBatch = 256;
constexpr int kInstructionsBetweenLooks = 10'000;

// Documents that words are suggested from.
constexpr size_t kSuggestedFrom = 100;

// What a connection does after `limit` fails, as long as this lives.
class TimeLimit {
 public:
  TimeLimit(sqlite3* handle, std::chrono::milliseconds limit)
      : handle_(handle), end_(std::chrono::steady_clock::now() + limit) {
    sqlite3_progress_handler(handle_, kInstructionsBetweenLooks, IsLate, this);
  }
  ~TimeLimit() { sqlite3_progress_handler(handle_, 0, nullptr, nullptr); }
  TimeLimit(const TimeLimit&) = delete;
  TimeLimit& operator=(const TimeLimit&) = delete;

  bool IsOver() const { return std::chrono::steady_clock::now() > end_; }

 private:
  static int IsLate(void* limit) { return static_cast<TimeLimit*>(limit)->IsOver() ? 1 : 0; }

  sqlite3* handle_;
  std::chrono::steady_clock::time_point end_;
};

bool Better(double score, int64_t id, double other_score, int64_t other_id) {
  return score != other_score ? score > other_score : id > other_id;
}

std::string OrderOf(const Schema& schema, SearchOptions::Sort sort, bool descending) {
  std::string by;
  switch (sort) {
    case SearchOptions::Sort::kName:
      by = "nimo_fold(" + schema.ColumnSql(kNameField) + ")";
      break;
    case SearchOptions::Sort::kSize:
      by = schema.ColumnSql(kSizeField);
      break;
    case SearchOptions::Sort::kModified:
      by = schema.ColumnSql(kModifiedField);
      break;
    default:
      break;
  }
  const std::string direction = descending ? " DESC" : "";
  return by.empty() || by == "nimo_fold()" ? "d.path" + direction : by + direction + ", d.path" + direction;
}

size_t BytesOf(const Hit& hit) {
  return sizeof(Hit) + hit.path.size() + hit.snippet.size() + static_cast<size_t>(JsonBytes(hit.fields));
}

}  // namespace

std::string Searcher::From() const {
  // The order of a cross join is kept: first the words, then their documents.
  return query_.match.empty() ? " FROM doc d" : " FROM fts CROSS JOIN doc d ON d.id = fts.rowid";
}

std::string Searcher::Where(const std::string& id) const {
  const std::string question = query_.match.empty() ? query_.where : "fts MATCH ? AND " + query_.where;
  return " WHERE " + (filtered_ ? "(" + question + ") AND nimo_among(?, " + id + ")" : question);
}

std::string Searcher::RankSql() const {
  // A viewer must not learn from scores what stands in documents that are not shown.
  return "nimo_rank(fts, " + std::to_string(kRankedHits) + (filtered_ ? ", 1)" : ", 0)");
}

// To what Where has said. `match` is not copied.
void Searcher::BindQuestion(Statement& statement, const std::string& match) {
  int next = 1;
  if (!query_.match.empty()) {
    statement.BindText(next++, match);
  }
  BindAll(statement, next, query_.parameters);
  if (filtered_) {
    next += static_cast<int>(query_.parameters.size());
    statement.BindPointer(next, &permitted_, kDocumentIdsType);
  }
}

SearchResult Searcher::Run(const std::string& text) {
  if (options_.limit > kMaxLimit) {
    throw Error(ErrorCode::kBadQuery, "at most " + std::to_string(kMaxLimit) + " hits can be asked for at once");
  }
  PeopleQuery question = ParsePeopleQuery(text, *database_.schema(), options_.now);
  query_ = Compile(std::move(question.node));
  name_match_ = std::move(question.name_match);
  const TimeLimit time_limit(database_.connection().handle(), options_.time_limit);
  SearchResult result;
  if (options_.viewer != nullptr) {
    CollectPermitted(kCountedHits);
  } else {
    Collect();
  }
  result.total = static_cast<int64_t>(total_);
  result.more = more_;
  result.exact = result.total <= kRankedHits && !more_;
  if (options_.facets) {
    CountFacets(result);
  }
  SnippetMaker snippets(database_.schema()->languages(), question.words, question.prefixes, options_.mark_begin,
                        options_.mark_end);
  for (const Found& found : Page()) {
    result.hits.push_back(MakeHit(found, snippets));
    result.bytes += BytesOf(result.hits.back());
    if (result.bytes > options_.max_bytes) {
      throw Error(ErrorCode::kAnswerTooLarge, "the hits take too much room: ask for fewer of them, or fewer fields");
    }
  }
  return result;
}

std::vector<std::string> Searcher::Suggest(const std::string& prefix, size_t limit) {
  const Schema& schema = *database_.schema();
  const std::string begin = Fold(prefix);
  query_ = Compile(begin.empty() ? Node::All() : Conditions(schema).Words("_all", begin, WordMatch::kBeginning, false));
  const TimeLimit time_limit(database_.connection().handle(), options_.time_limit);
  CollectPermitted(kSuggestedFrom);
  std::map<std::string, size_t> documents;
  for (const Found& found : found_) {
    if (time_limit.IsOver()) {
      break;
    }
    StoredRecord stored = Require(found.id);
    database_.store().ReadTexts(stored);
    for (const std::string& word : WordsToSuggest(schema, stored.record)) {
      if (word.compare(0, begin.size(), begin) == 0) {
        ++documents[word];
      }
    }
  }
  std::vector<std::pair<std::string, size_t>> words(documents.begin(), documents.end());
  std::stable_sort(words.begin(), words.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
  std::vector<std::string> suggestions;
  for (size_t i = 0; i < std::min(limit, words.size()); ++i) {
    suggestions.push_back(std::move(words[i].first));
  }
  return suggestions;
}

void Searcher::Collect() {
  const bool rank = RanksAll();
  const bool only_words = !query_.match.empty() && query_.where == "1";
  const std::string id = query_.match.empty() ? "d.id" : "fts.rowid";
  const std::string score = rank ? RankSql() : "0.0";
  const std::string from = only_words ? " FROM fts" : From();
  Statement statement(database_.connection().handle(), "SELECT " + id + ", " + score + from + Where() + " ORDER BY " +
                                                           id + " DESC LIMIT " + std::to_string(kCountedHits + 1));
  BindQuestion(statement, query_.match);
  while (statement.Step()) {
    found_.push_back({statement.Int(0), statement.Double(1)});
  }
  more_ = found_.size() > kCountedHits;
  found_.resize(std::min(found_.size(), kCountedHits));
  total_ = found_.size();
  if (rank && total_ > static_cast<size_t>(kRankedHits) && !name_match_.empty()) {
    RankNames();
  }
}

// The newest of those that the viewer may see, however many there are that it may not: nobody's hits hide another's.
void Searcher::CollectPermitted(size_t most) {
  const auto checked_until = std::chrono::steady_clock::now() + options_.viewer_limit;
  const Schema& schema = *database_.schema();
  const std::string created = schema.ColumnSql(kCreatedField);
  const std::string owner = schema.ColumnSql(kOwnerField);
  Statement statement(database_.connection().handle(), "SELECT d.id, d.path, " + (created.empty() ? "NULL" : created) +
                                                           ", " + (owner.empty() ? "NULL" : owner) + From() + Where() +
                                                           " ORDER BY " +
                                                           (query_.match.empty() ? "d.id" : "fts.rowid") + " DESC");
  BindQuestion(statement, query_.match);
  std::vector<int64_t> ids;
  std::vector<Candidate> candidates;
  bool late = false;
  while (!late && permitted_.size() <= most && statement.Step()) {
    ids.push_back(statement.Int(0));
    candidates.push_back({std::string(statement.Bytes(1)),
                          statement.IsNull(2) ? std::nullopt : std::optional(statement.Int(2)),
                          std::string(statement.Bytes(3))});
    if (candidates.size() == kBatch) {
      KeepPermitted(ids, candidates);
      ids.clear();
      late = std::chrono::steady_clock::now() > checked_until;
    }
  }
  KeepPermitted(ids, candidates);
  more_ = late || permitted_.size() > most;
  permitted_.resize(std::min(permitted_.size(), most));
  for (const int64_t id : permitted_) {
    found_.push_back({id, 0});
  }
  total_ = found_.size();
  filtered_ = true;
  if (RanksAll()) {
    RankPermitted();
  }
}

void Searcher::KeepPermitted(const std::vector<int64_t>& ids, std::vector<Candidate>& candidates) {
  if (candidates.empty()) {
    return;
  }
  const std::vector<bool> shown = options_.viewer->MaySee(candidates);
  for (size_t i = 0; i < ids.size(); ++i) {
    if (shown.at(i)) {
      permitted_.push_back(ids[i]);
    }
  }
  candidates.clear();
}

void Searcher::RankPermitted() {
  const bool only_words = query_.where == "1";
  Statement statement(database_.connection().handle(),
                      "SELECT fts.rowid, " + RankSql() + (only_words ? " FROM fts" : From()) + Where("fts.rowid") +
                          " ORDER BY fts.rowid DESC LIMIT " + std::to_string(kRankedHits));
  BindQuestion(statement, query_.match);
  for (size_t i = 0; i < total_ && statement.Step(); ++i) {
    found_[i].score = statement.Double(1);  // the same documents in the same order, but for the permitted ones' end
  }
  if (total_ > static_cast<size_t>(kRankedHits) && !name_match_.empty()) {
    RankNames();
  }
}

// Where too many were found to rank them all, those with a word in their name are ranked beside the newest. Their
// names' pieces are far fewer than the places of a common word, and FTS5 skips from one to the next.
void Searcher::RankNames() {
  Statement statement(database_.connection().handle(), "SELECT fts.rowid, " + RankSql() + From() + Where() +
                                                           " ORDER BY fts.rowid DESC LIMIT " +
                                                           std::to_string(kRankedHits));
  const std::string match = "(" + query_.match + ") AND (" + name_match_ + ")";
  BindQuestion(statement, match);
  // Both lists begin with the newest, so one walk through both finds what they share.
  size_t place = 0;
  const size_t counted = found_.size();
  while (statement.Step()) {
    const Found named{statement.Int(0), statement.Double(1)};
    const auto counted_end = found_.begin() + static_cast<std::ptrdiff_t>(counted);
    const auto at = std::lower_bound(found_.begin() + static_cast<std::ptrdiff_t>(place), counted_end, named.id,
                                     [](const Found& found, int64_t id) { return found.id > id; });
    place = static_cast<size_t>(at - found_.begin());
    if (at == counted_end) {
      found_.push_back(named);  // older than all that were counted
    } else {
      at->score = std::max(at->score, named.score);
    }
  }
}

std::vector<Searcher::Found> Searcher::Page() {
  if (options_.offset >= found_.size() || options_.limit == 0) {
    return {};
  }
  if (options_.sort != SearchOptions::Sort::kRelevance) {
    return SortedPage(OrderOf(*database_.schema(), options_.sort, options_.descending));
  }
  if (query_.match.empty()) {
    // Nothing to weigh: what was changed last is the likeliest to be meant.
    return SortedPage(OrderOf(*database_.schema(), SearchOptions::Sort::kModified, true));
  }
  const size_t end = std::min(options_.offset + options_.limit, found_.size());
  std::vector<Found> best = found_;
  std::partial_sort(best.begin(), best.begin() + static_cast<std::ptrdiff_t>(end), best.end(),
                    [](const Found& a, const Found& b) { return Better(a.score, a.id, b.score, b.id); });
  return {best.begin() + static_cast<std::ptrdiff_t>(options_.offset), best.begin() + static_cast<std::ptrdiff_t>(end)};
}

std::vector<Searcher::Found> Searcher::SortedPage(const std::string& order) {
  Statement statement(database_.connection().handle(), "SELECT d.id" + From() + Where() + " ORDER BY " + order +
                                                           " LIMIT " + std::to_string(options_.limit) + " OFFSET " +
                                                           std::to_string(options_.offset));
  BindQuestion(statement, query_.match);
  std::vector<Found> page;
  while (statement.Step()) {
    page.push_back({statement.Int(0), 0});
  }
  return page;
}

void Searcher::CountFacets(SearchResult& result) {
  const Schema& schema = *database_.schema();
  const std::string columns[] = {schema.ColumnSql(kKindField), schema.ColumnSql(kExtensionField)};
  const char* const names[] = {"kind", "extension"};
  std::unordered_map<std::string, int64_t> counts[2];
  Statement statement(
      database_.connection().handle(),
      "SELECT " + columns[0] + ", " + (columns[1].empty() ? "NULL" : columns[1]) + " FROM doc d WHERE d.id = ?1");
  const size_t looked_at = std::min(found_.size(), static_cast<size_t>(kRankedHits));
  for (size_t i = 0; i < looked_at; ++i) {
    const ScopedReset reset(statement);
    statement.Bind(1, found_[i].id);
    const bool row = statement.Step();
    for (int column = 0; row && column < 2; ++column) {
      const std::string_view value = statement.Bytes(column);
      if (!value.empty()) {
        ++counts[column][std::string(value)];
      }
    }
  }
  for (size_t i = 0; i < 2; ++i) {
    Facet facet(counts[i].begin(), counts[i].end());
    std::sort(facet.begin(), facet.end(), [](const auto& a, const auto& b) {
      return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    facet.resize(std::min(facet.size(), kFacetValues));
    result.facets[names[i]] = std::move(facet);
  }
}

StoredRecord Searcher::Require(int64_t id) {
  std::optional<StoredRecord> stored = database_.store().FindById(id);
  if (!stored) {
    throw Error(ErrorCode::kCorrupt, "the words of a document that is not there");
  }
  return std::move(*stored);
}

Hit Searcher::MakeHit(const Found& found, SnippetMaker& snippets) {
  const Schema& schema = *database_.schema();
  Hit hit;
  hit.score = found.score;
  StoredRecord stored = Require(found.id);
  if (options_.snippets || schema.NeedsTexts(options_.load_fields)) {
    database_.store().ReadTexts(stored);
  }
  database_.store().ReadExtra(stored);
  hit.path = stored.record.path;
  hit.fields = schema.ToJson(stored.record, options_.load_fields);
  for (const char* name : {kContentField, kDescriptionField, kTitleField}) {
    const Field* field = schema.Find(name);
    if (!options_.snippets || field == nullptr || !hit.snippet.empty()) {
      continue;
    }
    const auto text = stored.record.texts.find(static_cast<size_t>(field - schema.fields().data()));
    if (text != stored.record.texts.end() && text->second.isString()) {
      const char* begin = nullptr;
      const char* end = nullptr;
      text->second.getString(&begin, &end);
      hit.snippet = snippets.Make(std::string_view(begin, static_cast<size_t>(end - begin)));
    }
  }
  return hit;
}

}  // namespace search
