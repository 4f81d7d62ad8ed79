// Answers people's questions on one state of the database.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "services/search/database.h"
#include "services/search/fts.h"
#include "services/search/index.h"
#include "services/search/query.h"
#include "services/search/viewer.h"

namespace search {

/// One question's answer. Used once, by one thread; `database` is in a reading transaction.
class Searcher {
 public:
  Searcher(Database& database, const SearchOptions& options) : database_(database), options_(options) {}

  /// See Index::Search.
  SearchResult Run(const std::string& text);

  /// See Index::SuggestFor; the options have a viewer, and an order that needs no ranks.
  std::vector<std::string> Suggest(const std::string& prefix, size_t limit);

 private:
  struct Found {
    int64_t id;
    double score;
  };

  std::string From() const;
  std::string Where(const std::string& id = "d.id") const;
  std::string RankSql() const;
  void BindQuestion(Statement& statement, const std::string& match);
  void Collect();
  void CollectPermitted(size_t most);
  void KeepPermitted(const std::vector<int64_t>& ids, std::vector<Candidate>& candidates);
  bool RanksAll() const { return !query_.match.empty() && options_.sort == SearchOptions::Sort::kRelevance; }
  void RankPermitted();
  void RankNames();
  std::vector<Found> Page();
  std::vector<Found> SortedPage(const std::string& order);
  void CountFacets(SearchResult& result);
  StoredRecord Require(int64_t id);
  Hit MakeHit(const Found& found, class SnippetMaker& snippets);

  Database& database_;
  const SearchOptions& options_;
  CompiledQuery query_;
  std::string name_match_;    // the full text's expression for a word of the question in a name; "" for none
  std::vector<Found> found_;  // hits, newest first; the first kRankedHits of them, and those in names, have scores
  size_t total_ = 0;
  bool more_ = false;
  bool filtered_ = false;  // from now on only permitted_ are asked for
  DocumentIds permitted_;  // those of found_, if a viewer was asked
};

}  // namespace search
