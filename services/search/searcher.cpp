// Search: all hits are counted; the newest and those in names are ranked; one page of them is read.
#include "services/search/searcher.h"

#include <algorithm>
#include <unordered_map>

#include "services/search/snippet.h"
#include "services/search/vocabulary.h"

namespace search {
namespace {

// Ranking costs some microseconds for a hit. Who gets more hits than this has asked for a word that tells little.
constexpr int64_t kRankedHits = 5'000;
constexpr size_t kMaxLimit = 10'000;
constexpr size_t kFacetValues = 100;
constexpr int kInstructionsBetweenLooks = 10'000;

struct Deadline {
  std::chrono::steady_clock::time_point at;
};

int IsLate(void* deadline) {
  return std::chrono::steady_clock::now() > static_cast<Deadline*>(deadline)->at ? 1 : 0;
}

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

}  // namespace

std::string Searcher::From() const {
  // The order of a cross join is kept: first the words, then their documents.
  return query_.match.empty() ? " FROM doc d" : " FROM fts CROSS JOIN doc d ON d.id = fts.rowid";
}

std::string Searcher::Where() const {
  return query_.match.empty() ? " WHERE " + query_.where : " WHERE fts MATCH ? AND " + query_.where;
}

void Searcher::BindQuestion(Statement& statement, int first) const {
  if (!query_.match.empty()) {
    statement.BindText(first++, query_.match);
  }
  BindAll(statement, first, query_.parameters);
}

SearchResult Searcher::Run(const std::string& text) {
  if (options_.limit > kMaxLimit) {
    throw Error(ErrorCode::kBadQuery, "at most " + std::to_string(kMaxLimit) + " hits can be asked for at once");
  }
  PeopleQuery question = ParsePeopleQuery(text, *database_.schema(), options_.now);
  query_ = Compile(std::move(question.node));
  Deadline deadline{std::chrono::steady_clock::now() + options_.time_limit};
  sqlite3* handle = database_.connection().handle();
  sqlite3_progress_handler(handle, kInstructionsBetweenLooks, IsLate, &deadline);
  SearchResult result;
  try {
    Collect();
    result.total = static_cast<int64_t>(found_.size());
    result.exact = result.total <= kRankedHits;
    if (options_.facets) {
      CountFacets(result);
    }
    SnippetMaker snippets(database_.schema()->languages(), question.words, question.prefixes, options_.mark_begin,
                          options_.mark_end);
    for (const Found& found : Page()) {
      result.hits.push_back(MakeHit(found, snippets));
    }
  } catch (...) {
    sqlite3_progress_handler(handle, 0, nullptr, nullptr);  // it would outlive the deadline that it looks at
    throw;
  }
  sqlite3_progress_handler(handle, 0, nullptr, nullptr);
  return result;
}

void Searcher::Collect() {
  const bool rank = !query_.match.empty() && options_.sort == SearchOptions::Sort::kRelevance;
  const bool only_words = !query_.match.empty() && query_.where == "1";
  const std::string id = query_.match.empty() ? "d.id" : "fts.rowid";
  const std::string score = rank ? "nimo_rank(fts, " + std::to_string(kRankedHits) + ")" : "0.0";
  const std::string from = only_words ? " FROM fts" : From();
  Statement statement(database_.connection().handle(),
                      "SELECT " + id + ", " + score + from + Where() + " ORDER BY " + id + " DESC");
  BindQuestion(statement, 1);
  while (statement.Step()) {
    found_.push_back({statement.Int(0), statement.Double(1)});
  }
  if (rank && found_.size() > static_cast<size_t>(kRankedHits)) {
    RankNames();
  }
}

// Where too many were found to rank them all, those whose name alone answers the question are ranked beside the newest.
void Searcher::RankNames() {
  const Schema& schema = *database_.schema();
  const Field* name = schema.Find(kNameField);
  if (name == nullptr || name->words < 0) {
    return;
  }
  std::string columns = "w" + std::to_string(name->words);
  columns += name->pieces >= 0 ? " w" + std::to_string(name->pieces) : "";
  const std::string match = "{" + columns + "} : (" + query_.match + ")";
  Statement statement(database_.connection().handle(),
                      "SELECT fts.rowid, nimo_rank(fts, " + std::to_string(kRankedHits) + ")" + From() + Where() +
                          " ORDER BY fts.rowid DESC LIMIT " + std::to_string(kRankedHits));
  statement.BindText(1, match);
  BindAll(statement, 2, query_.parameters);
  // Both lists begin with the newest, so one walk through both finds what they share.
  auto place = found_.begin();
  while (statement.Step()) {
    const int64_t id = statement.Int(0);
    place =
        std::lower_bound(place, found_.end(), id, [](const Found& found, int64_t value) { return found.id > value; });
    if (place != found_.end() && place->id == id) {
      place->score = std::max(place->score, statement.Double(1));
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
  BindQuestion(statement, 1);
  std::vector<Found> page;
  while (statement.Step()) {
    page.push_back({statement.Int(0), 0});
  }
  return page;
}

void Searcher::CountFacets(SearchResult& result) {
  const Schema& schema = *database_.schema();
  const std::pair<const char*, std::string> facets[] = {{"kind", schema.ColumnSql(kKindField)},
                                                        {"extension", schema.ColumnSql(kExtensionField)}};
  for (const auto& [name, column] : facets) {
    result.facets[name];
    if (column.empty()) {
      continue;
    }
    std::unordered_map<std::string, int64_t> counts;
    Statement statement(database_.connection().handle(), "SELECT " + column + " FROM doc d WHERE d.id = ?1");
    const size_t looked_at = std::min(found_.size(), static_cast<size_t>(kRankedHits));
    for (size_t i = 0; i < looked_at; ++i) {
      const ScopedReset reset(statement);
      statement.Bind(1, found_[i].id);
      if (statement.Step() && !statement.IsNull(0)) {
        ++counts[std::string(statement.Bytes(0))];
      }
    }
    counts.erase("");
    Facet facet(counts.begin(), counts.end());
    std::sort(facet.begin(), facet.end(), [](const auto& a, const auto& b) {
      return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    facet.resize(std::min(facet.size(), kFacetValues));
    result.facets[name] = std::move(facet);
  }
}

Hit Searcher::MakeHit(const Found& found, SnippetMaker& snippets) {
  const Schema& schema = *database_.schema();
  Hit hit;
  hit.score = found.score;
  std::optional<StoredRecord> stored = database_.store().FindById(found.id);
  if (!stored) {
    throw Error(ErrorCode::kCorrupt, "the words of a document that is not there");
  }
  if (options_.snippets || schema.NeedsTexts(options_.load_fields)) {
    database_.store().ReadTexts(*stored);
  }
  database_.store().ReadExtra(*stored);
  hit.path = stored->record.path;
  hit.fields = schema.ToJson(stored->record, options_.load_fields);
  for (const char* name : {kContentField, kDescriptionField, kTitleField}) {
    const Field* field = schema.Find(name);
    if (!options_.snippets || field == nullptr || !hit.snippet.empty()) {
      continue;
    }
    const auto text = stored->record.texts.find(static_cast<size_t>(field - schema.fields().data()));
    if (text != stored->record.texts.end() && text->second.isString()) {
      const char* begin = nullptr;
      const char* end = nullptr;
      text->second.getString(&begin, &end);
      hit.snippet = snippets.Make(std::string_view(begin, static_cast<size_t>(end - begin)));
    }
  }
  return hit;
}

}  // namespace search
