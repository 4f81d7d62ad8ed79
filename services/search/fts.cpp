// The tokenizer and the ranking of the full text, in the form that SQLite calls.
#include "services/search/fts.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "services/search/index.h"
#include "services/search/sqlite.h"
#include "services/search/words.h"

namespace search {
namespace {

using SharedSchema = std::shared_ptr<const Schema>;

struct Tokenizer {
  explicit Tokenizer(const Schema& schema) : analyzer(schema.languages()) {}
  WordAnalyzer analyzer;
};

int CreateTokenizer(void* context, const char**, int, Fts5Tokenizer** out) {
  try {
    *out =
        reinterpret_cast<Fts5Tokenizer*>(std::make_unique<Tokenizer>(**static_cast<SharedSchema*>(context)).release());
    return SQLITE_OK;
  } catch (const std::bad_alloc&) {
    return SQLITE_NOMEM;
  } catch (const Error&) {
    return SQLITE_ERROR;
  }
}

void DeleteTokenizer(Fts5Tokenizer* tokenizer) {
  const std::unique_ptr<Tokenizer> owner(reinterpret_cast<Tokenizer*>(tokenizer));
}

using TokenCallback = int (*)(void*, int, const char*, int, int, int);

class CallbackSink : public TokenSink {
 public:
  CallbackSink(void* context, TokenCallback callback) : context_(context), callback_(callback) {}
  bool Take(std::string_view token, size_t begin, size_t end, bool colocated) override {
    code_ = callback_(context_, colocated ? FTS5_TOKEN_COLOCATED : 0, token.data(), static_cast<int>(token.size()),
                      static_cast<int>(begin), static_cast<int>(end));
    return code_ == SQLITE_OK;
  }
  int code() const { return code_; }

 private:
  void* context_;
  TokenCallback callback_;
  int code_ = SQLITE_OK;
};

void Analyze(WordAnalyzer& analyzer, TokenMode mode, std::string_view text, bool asking, TokenSink& sink) {
  const auto stems = asking ? WordAnalyzer::Stems::kAsk : WordAnalyzer::Stems::kStore;
  switch (mode) {
    case kPieces:
      analyzer.Pieces(text, asking, sink);
      break;
    case kKeyword:
      analyzer.Keyword(text, sink);
      break;
    case kWhiteSpace:
    case kWhiteSpaceEscaped:
      analyzer.WhiteSpace(text, mode == kWhiteSpaceEscaped, stems, sink);
      break;
    case kVerbatim:
      sink.Take(text, 0, text.size(), false);
      break;
    case kPlainWords:
      analyzer.Words(text, WordAnalyzer::Stems::kNone, sink);
      break;
    default:
      analyzer.Words(text, stems, sink);
  }
}

thread_local const std::vector<ColumnText>* given_texts = nullptr;

// What `marked` stands for, or what it says itself.
ColumnText TextOf(std::string_view marked) {
  const auto mode = static_cast<TokenMode>(marked.front());
  const std::string_view rest = marked.substr(1);
  if (mode != kGiven) {
    return {mode, rest};
  }
  size_t index = 0;
  const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), index);
  if (given_texts == nullptr || error != std::errc() || end != rest.data() + rest.size() ||
      index >= given_texts->size()) {
    throw Error(ErrorCode::kStorage, "a text was not given");
  }
  return (*given_texts)[index];
}

int Tokenize(Fts5Tokenizer* tokenizer, void* context, int flags, const char* text, int size, TokenCallback callback) {
  if (text == nullptr || size <= 0) {
    return SQLITE_OK;
  }
  CallbackSink sink(context, callback);
  try {
    const ColumnText column = TextOf(std::string_view(text, static_cast<size_t>(size)));
    Analyze(reinterpret_cast<Tokenizer*>(tokenizer)->analyzer, column.mode, column.text,
            (flags & FTS5_TOKENIZE_QUERY) != 0, sink);
  } catch (const std::bad_alloc&) {
    return SQLITE_NOMEM;
  } catch (const Error&) {
    return SQLITE_ERROR;
  }
  return sink.code();
}

// What a ranking needs to know of the whole index, found out at its first row.
struct RankState {
  int64_t left = 0;
  double average_size = 1;
  std::vector<double> rarity;  // by phrase
  std::vector<double> frequency;
};

// A phrase of more rows is common, however common; counting on would cost more than it tells.
constexpr int64_t kCountedRows = 2'000;

int CountRow(const Fts5ExtensionApi*, Fts5Context*, void* count) {
  return ++*static_cast<int64_t*>(count) < kCountedRows ? SQLITE_OK : SQLITE_DONE;
}

// The numbers that are no matter of the whole index, for whoever may not know what else is in it.
constexpr double kAnySize = 500;

void MakeLoneState(const Fts5ExtensionApi* api, Fts5Context* row, int64_t limit, RankState& state) {
  state.left = limit;
  state.average_size = kAnySize;
  state.rarity.assign(static_cast<size_t>(api->xPhraseCount(row)), 1.0);
}

int MakeState(const Fts5ExtensionApi* api, Fts5Context* row, int64_t limit, RankState& state) {
  sqlite3_int64 rows = 0;
  sqlite3_int64 tokens = 0;
  int code = api->xRowCount(row, &rows);
  if (code == SQLITE_OK) {
    code = api->xColumnTotalSize(row, -1, &tokens);
  }
  const auto total = static_cast<double>(std::max<sqlite3_int64>(rows, 1));
  state.left = limit;
  state.average_size = std::max(1.0, static_cast<double>(tokens) / total);
  for (int phrase = 0; code == SQLITE_OK && phrase < api->xPhraseCount(row); ++phrase) {
    int64_t count = 0;
    code = api->xQueryPhrase(row, phrase, &count, CountRow);
    const auto with = static_cast<double>(count);
    state.rarity.push_back(std::max(1e-6, std::log((total - with + 0.5) / (with + 0.5))));
  }
  return code;
}

int Score(const Fts5ExtensionApi* api, Fts5Context* row, const Schema& schema, RankState& state, double& score) {
  constexpr double kSaturation = 1.2;
  constexpr double kSizeWeight = 0.75;
  int instances = 0;
  int size = 0;
  int code = api->xInstCount(row, &instances);
  if (code == SQLITE_OK) {
    code = api->xColumnSize(row, -1, &size);
  }
  state.frequency.assign(state.rarity.size(), 0);
  for (int i = 0; code == SQLITE_OK && i < instances; ++i) {
    int phrase = 0;
    int column = 0;
    int offset = 0;
    code = api->xInst(row, i, &phrase, &column, &offset);
    if (code == SQLITE_OK) {
      state.frequency[static_cast<size_t>(phrase)] += schema.word_columns()[static_cast<size_t>(column)].weight;
    }
  }
  const double length = 1 - kSizeWeight + kSizeWeight * size / state.average_size;
  for (size_t phrase = 0; phrase < state.rarity.size(); ++phrase) {
    const double frequency = state.frequency[phrase];
    score += state.rarity[phrase] * frequency * (kSaturation + 1) / (frequency + kSaturation * length);
  }
  return code;
}

void Rank(const Fts5ExtensionApi* api, Fts5Context* row, sqlite3_context* result, int count, sqlite3_value** values) {
  auto* state = static_cast<RankState*>(api->xGetAuxdata(row, 0));
  int code = SQLITE_OK;
  double score = 0;
  try {
    if (state == nullptr) {
      auto made = std::make_unique<RankState>();
      const int64_t limit = count > 0 ? sqlite3_value_int64(values[0]) : INT64_MAX;
      if (count > 1 && sqlite3_value_int(values[1]) != 0) {
        MakeLoneState(api, row, limit, *made);
      } else {
        code = MakeState(api, row, limit, *made);
      }
      state = made.release();
      const int set = api->xSetAuxdata(row, state, [](void* old) { delete static_cast<RankState*>(old); });
      code = code == SQLITE_OK ? set : code;
    }
    if (code == SQLITE_OK && state->left > 0) {
      --state->left;
      code = Score(api, row, **static_cast<SharedSchema*>(api->xUserData(row)), *state, score);
    }
  } catch (const std::bad_alloc&) {
    code = SQLITE_NOMEM;
  }
  code == SQLITE_OK ? sqlite3_result_double(result, score) : sqlite3_result_error_code(result, code);
}

void FoldFunction(sqlite3_context* result, int, sqlite3_value** values) {
  try {
    const auto* bytes = static_cast<const char*>(sqlite3_value_blob(values[0]));
    const std::string folded =
        bytes == nullptr ? "" : Fold(std::string_view(bytes, static_cast<size_t>(sqlite3_value_bytes(values[0]))));
    sqlite3_result_blob(result, folded.data(), static_cast<int>(folded.size()), SQLITE_TRANSIENT);
  } catch (const std::bad_alloc&) {
    sqlite3_result_error_nomem(result);
  }
}

void AmongFunction(sqlite3_context* result, int, sqlite3_value** values) {
  const auto* ids = static_cast<const DocumentIds*>(sqlite3_value_pointer(values[0], kDocumentIdsType));
  const int64_t id = sqlite3_value_int64(values[1]);
  sqlite3_result_int(result, ids != nullptr && std::binary_search(ids->begin(), ids->end(), id, std::greater<>()));
}

fts5_api* FullTextApi(sqlite3* database) {
  fts5_api* api = nullptr;
  sqlite3_stmt* statement = nullptr;
  int code = sqlite3_prepare_v2(database, "SELECT fts5(?1)", -1, &statement, nullptr);
  if (code == SQLITE_OK) {
    sqlite3_bind_pointer(statement, 1, static_cast<void*>(&api), "fts5_api_ptr", nullptr);
    sqlite3_step(statement);
    code = sqlite3_finalize(statement);
  }
  if (code != SQLITE_OK || api == nullptr) {
    ThrowSqlite(database, code != SQLITE_OK ? code : SQLITE_ERROR, "this SQLite has no FTS5");
  }
  return api;
}

void DeleteSchema(void* schema) {
  const std::unique_ptr<SharedSchema> owner(static_cast<SharedSchema*>(schema));
}

}  // namespace

void RegisterFunctions(sqlite3* database, std::shared_ptr<const Schema> schema) {
  fts5_api* api = FullTextApi(database);
  fts5_tokenizer tokenizer{CreateTokenizer, DeleteTokenizer, Tokenize};
  // FTS5 destroys what it was given when the connection closes, also when it refuses it.
  int code =
      api->xCreateTokenizer(api, "nimo", std::make_unique<SharedSchema>(schema).release(), &tokenizer, DeleteSchema);
  if (code == SQLITE_OK) {
    code = api->xCreateFunction(api, "nimo_rank", std::make_unique<SharedSchema>(schema).release(), Rank, DeleteSchema);
  }
  if (code == SQLITE_OK) {
    code = sqlite3_create_function_v2(database, "nimo_fold", 1, SQLITE_UTF8 | SQLITE_DETERMINISTIC, nullptr,
                                      FoldFunction, nullptr, nullptr, nullptr);
  }
  if (code == SQLITE_OK) {
    code = sqlite3_create_function_v2(database, "nimo_among", 2, SQLITE_UTF8, nullptr, AmongFunction, nullptr, nullptr,
                                      nullptr);
  }
  if (code != SQLITE_OK) {
    ThrowSqlite(database, code, "adding the tokenizer");
  }
}

GivenTexts::GivenTexts(const std::vector<ColumnText>& texts) : before_(given_texts) {
  given_texts = &texts;
}

GivenTexts::~GivenTexts() {
  given_texts = before_;
}

std::string GivenTexts::Mark(size_t index) {
  return static_cast<char>(kGiven) + std::to_string(index);
}

}  // namespace search
