// The functions behind the commands, one for each.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

#include "services/search/catalog.h"
#include "services/search/request.h"

namespace nimoelasticd {

/// What commands are run on, and within.
struct Setting {
  Catalog& catalog;
  size_t max_answer_bytes;  ///< a longer result is refused while it is made: Refusal kAnswerTooLarge
};

/// Each takes the "data" of its command and returns the result as JSON text, "" for none.
using Handler = std::string (*)(const Setting& setting, const Json::Value& data);

/// Prepares the command's document, if its index is open and there is one; never says what is wrong with it.
void PrepareDocument(Catalog& catalog, Command& command);
/// Stores the document that was prepared.
std::string UpsertPrepared(Catalog& catalog, Command& command);

// Whole indexes.
std::string IndexCreate(const Setting& setting, const Json::Value& data);
std::string IndexDelete(const Setting& setting, const Json::Value& data);
std::string IndexPause(const Setting& setting, const Json::Value& data);
std::string IndexResume(const Setting& setting, const Json::Value& data);
std::string IndexConfigSet(const Setting& setting, const Json::Value& data);
std::string IndexList(const Setting& setting, const Json::Value& data);
std::string IndexStat(const Setting& setting, const Json::Value& data);

// Documents.

/// For what could not be prepared: says why, and stores nothing.
std::string DocumentUpsertById(const Setting& setting, const Json::Value& data);

std::string DocumentSetById(const Setting& setting, const Json::Value& data);
std::string DocumentDelById(const Setting& setting, const Json::Value& data);
std::string DocumentDelByQuery(const Setting& setting, const Json::Value& data);
std::string DocumentGetByQuery(const Setting& setting, const Json::Value& data);
std::string Commit(const Setting& setting, const Json::Value& data);

// People's questions.
std::string DocumentSearch(const Setting& setting, const Json::Value& data);
std::string TermSuggest(const Setting& setting, const Json::Value& data);
std::string ListTermSuggDb(const Setting& setting, const Json::Value& data);
std::string UpdateTermSuggestion(const Setting& setting, const Json::Value& data);

}  // namespace nimoelasticd
