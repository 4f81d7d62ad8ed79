// The functions behind the commands, one for each.
#pragma once

#include <json/value.h>

#include <string>

#include "services/search/catalog.h"
#include "services/search/request.h"

namespace nimoelasticd {

/// Each takes the "data" of its command and returns the result as JSON text, "" for none.
using Handler = std::string (*)(Catalog& catalog, const Json::Value& data);

/// Prepares the command's document, if its index is open and there is one; never says what is wrong with it.
void PrepareDocument(Catalog& catalog, Command& command);
/// Stores the document that was prepared.
std::string UpsertPrepared(Catalog& catalog, Command& command);

// Whole indexes.
std::string IndexCreate(Catalog& catalog, const Json::Value& data);
std::string IndexDelete(Catalog& catalog, const Json::Value& data);
std::string IndexPause(Catalog& catalog, const Json::Value& data);
std::string IndexResume(Catalog& catalog, const Json::Value& data);
std::string IndexConfigSet(Catalog& catalog, const Json::Value& data);
std::string IndexList(Catalog& catalog, const Json::Value& data);
std::string IndexStat(Catalog& catalog, const Json::Value& data);

// Documents.
std::string DocumentUpsertById(Catalog& catalog, const Json::Value& data);
std::string DocumentSetById(Catalog& catalog, const Json::Value& data);
std::string DocumentDelById(Catalog& catalog, const Json::Value& data);
std::string DocumentDelByQuery(Catalog& catalog, const Json::Value& data);
std::string DocumentGetByQuery(Catalog& catalog, const Json::Value& data);
std::string Commit(Catalog& catalog, const Json::Value& data);

// People's questions.
std::string DocumentSearch(Catalog& catalog, const Json::Value& data);
std::string TermSuggest(Catalog& catalog, const Json::Value& data);
std::string ListTermSuggDb(Catalog& catalog, const Json::Value& data);
std::string UpdateTermSuggestion(Catalog& catalog, const Json::Value& data);

}  // namespace nimoelasticd
