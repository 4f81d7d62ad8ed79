// Text to words.
#include "services/search/words.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <random>

#include "services/search/index.h"

namespace search {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

// Tokens as text; a colocated one stands behind "=", a mark of a stem is "~", a mark of a piece is left out.
class Tokens : public TokenSink {
 public:
  bool Take(std::string_view token, size_t begin, size_t end, bool colocated) override {
    std::string text(token);
    if (text[0] == WordAnalyzer::kStemMark) {
      text[0] = '~';
    } else if (text[0] == WordAnalyzer::kPieceMark) {
      text.erase(0, 1);
    }
    list.push_back((colocated ? "=" : "") + text);
    places.emplace_back(begin, end);
    return list.size() < limit;
  }
  std::vector<std::string> list;
  std::vector<std::pair<size_t, size_t>> places;
  size_t limit = SIZE_MAX;
};

std::vector<std::string> Words(const std::string& text, WordAnalyzer::Stems stems = WordAnalyzer::Stems::kNone) {
  WordAnalyzer analyzer({"english"});
  Tokens tokens;
  analyzer.Words(text, stems, tokens);
  return tokens.list;
}

struct Case {
  const char* text;
  std::vector<std::string> tokens;
};

TEST(WordsTest, SplitsTextOfAnyScriptAndFoldsIt) {
  const Case cases[] = {
      {"", {}},
      {" \t.,;!", {}},
      {"Hello, World!", {"hello", "world"}},
      {"my_report-2021(final).pdf", {"my", "report", "2021", "final", "pdf"}},
      {"don't", {"don", "t"}},
      {"Caf\u00e9", {"cafe"}},
      {"Cafe\u0301", {"cafe"}},
      {"STRASSE stra\u00dfe", {"strasse", "strasse"}},
      {"na\u00efve", {"naive"}},
      {"\u041f\u0440\u0438\u0432\u0435\u0442, \u041c\u0418\u0420",
       {"\u043f\u0440\u0438\u0432\u0435\u0442", "\u043c\u0438\u0440"}},
      {"\uff21\uff22\uff23", {"abc"}},
      {"\ufb01nd", {"find"}},
      {"\u4e2d\u6587\u5b57", {"\u4e2d\u6587", "\u6587\u5b57", "=\u5b57"}},
      {"\u4e2d", {"\u4e2d"}},
      {"\u6587\u4ef6 v2", {"\u6587\u4ef6", "=\u4ef6", "v2"}},
      {"ab\u4e2d\u6587cd", {"ab", "\u4e2d\u6587", "=\u6587", "cd"}},
      {"\u304c", {"\u304c"}},
      {"\u304b\u3099", {"\u304c"}},
      {"\u0e2a\u0e27\u0e31\u0e2a\u0e14\u0e35\u0e0a\u0e32\u0e27\u0e42\u0e25\u0e01",
       {"\u0e2a\u0e27\u0e31\u0e2a\u0e14\u0e35", "\u0e0a\u0e32\u0e27", "\u0e42\u0e25\u0e01"}},
      {"caf\xe9.txt", {"cafe", "txt"}},
      {"\x80\xff", {"y"}},
  };
  for (const Case& c : cases) {
    EXPECT_THAT(Words(c.text, WordAnalyzer::Stems::kStore).size(), testing::Ge(c.tokens.size())) << c.text;
    WordAnalyzer analyzer({});
    Tokens tokens;
    analyzer.Words(c.text, WordAnalyzer::Stems::kStore, tokens);
    EXPECT_THAT(tokens.list, ElementsAreArray(c.tokens)) << c.text;
  }
}

TEST(WordsTest, KeepsStemsBesideTheWordsThatDifferFromThem) {
  EXPECT_THAT(Words("running dogs run", WordAnalyzer::Stems::kStore),
              ElementsAre("running", "=~run", "dogs", "=~dog", "run"));
}

TEST(WordsTest, AsksForEveryFormOfAWord) {
  EXPECT_THAT(Words("running", WordAnalyzer::Stems::kAsk), ElementsAre("running", "=~run", "=run"));
  EXPECT_THAT(Words("run", WordAnalyzer::Stems::kAsk), ElementsAre("run", "=~run"));
}

TEST(WordsTest, AsksForPairsWithoutTheLastCharacterAlone) {
  EXPECT_THAT(Words("\u4e2d\u6587\u5b57"), ElementsAre("\u4e2d\u6587", "\u6587\u5b57"));
  EXPECT_THAT(Words("\u4e2d"), ElementsAre("\u4e2d"));
}

TEST(WordsTest, SaysWhereEachWordStands) {
  WordAnalyzer analyzer({});
  Tokens tokens;

  analyzer.Words("a \u00e9t\u00e9 \u4e2d\u6587\u5b57", WordAnalyzer::Stems::kNone, tokens);

  EXPECT_THAT(tokens.places, ElementsAre(std::pair(0, 1), std::pair(2, 7), std::pair(8, 14), std::pair(11, 17)));
}

TEST(WordsTest, StopsWhenTheSinkHasEnough) {
  WordAnalyzer analyzer({});
  Tokens tokens;
  tokens.limit = 2;

  EXPECT_FALSE(analyzer.Words("one two three", WordAnalyzer::Stems::kNone, tokens));
  EXPECT_EQ(tokens.list.size(), 2u);
}

TEST(WordsTest, CutsEndlessWordsAtACharacter) {
  std::string word;
  for (int i = 0; i < 1000; ++i) {
    word += "\u0436";
  }
  const std::vector<std::string> tokens = Words(word);
  ASSERT_EQ(tokens.size(), 1u);
  EXPECT_EQ(tokens[0], word.substr(0, WordAnalyzer::kMaxWordBytes));
}

TEST(WordsTest, RefusesALanguageThatNobodyStems) {
  EXPECT_THROW(WordAnalyzer({"klingon"}), Error);
}

TEST(WordsTest, WhiteSpaceKeepsWholeChunksAndTheWordsInThem) {
  WordAnalyzer analyzer({});
  Tokens tokens;

  analyzer.WhiteSpace(" Smith,J.  M\u00fcller", false, WordAnalyzer::Stems::kStore, tokens);

  EXPECT_THAT(tokens.list, ElementsAre("smith,j.", "=smith", "j", "muller"));
}

TEST(WordsTest, EscapedWhiteSpaceSeparatesNothing) {
  const struct {
    const char* text;
    std::vector<std::string> tokens;
  } cases[] = {
      {"/v/My\\ Docs /w", {"/v/my docs", "=v", "my", "docs", "/w", "=w"}},
      {"a\\\\ b", {"a\\", "=a", "b"}},
      {"a\\b", {"a\\b", "=a", "b"}},
      {"a\\", {"a\\", "=a"}},
      {"\\ ", {" "}},
  };
  for (const auto& c : cases) {
    WordAnalyzer analyzer({});
    Tokens tokens;
    analyzer.WhiteSpace(c.text, true, WordAnalyzer::Stems::kNone, tokens);
    EXPECT_THAT(tokens.list, ElementsAreArray(c.tokens)) << c.text;
  }
}

// A text of `count` random words, and what its tokens are when each word is analyzed alone by somebody who saw no
// other.
struct RandomText {
  RandomText(int count, std::mt19937& random) {
    const std::vector<std::string> languages = {"english", "german"};
    const char* const letters[] = {"a", "E", "i", "n", "S", "t", "z", "y", "0", "7", "\u00e9"};
    const char* const separators[] = {" ", "\n", "_", ", ", "\u2014", "\x01"};
    for (int i = 0; i < count; ++i) {
      std::string word;
      // Some are short and come again, some are longer than what is kept of a word.
      for (int left = i % 50 == 0 ? 120 : static_cast<int>(random() % 6) + 1; left > 0; --left) {
        word += letters[random() % std::size(letters)];
      }
      word += random() % 4 == 0 ? "ing" : "";
      WordAnalyzer analyzer(languages);
      Tokens tokens;
      analyzer.Words(word, WordAnalyzer::Stems::kStore, tokens);
      list.insert(list.end(), tokens.list.begin(), tokens.list.end());
      places.insert(places.end(), tokens.list.size(), {text.size(), text.size() + word.size()});
      text += word + separators[random() % std::size(separators)];
    }
  }
  std::string text;
  std::vector<std::string> list;
  std::vector<std::pair<size_t, size_t>> places;
};

TEST(WordsTest, AWordHasTheSameTokensAloneAndAmongOthers) {
  std::mt19937 random{7};
  WordAnalyzer analyzer({"english", "german"});
  for (int round = 0; round < 5; ++round) {
    const RandomText expected(400, random);
    Tokens tokens;

    analyzer.Words(expected.text, WordAnalyzer::Stems::kStore, tokens);

    ASSERT_EQ(tokens.list, expected.list);
    ASSERT_EQ(tokens.places, expected.places);
  }
}

TEST(WordsTest, ANumberHasNoFormsInAnyLanguage) {
  for (const char* language :
       {"arabic", "danish", "dutch", "english", "finnish", "french", "german", "hungarian", "italian", "norwegian",
        "portuguese", "romanian", "russian", "spanish", "swedish", "turkish"}) {
    WordAnalyzer analyzer({language});
    Tokens stored;
    Tokens asked;

    analyzer.Words("1 2021 20211121 0007", WordAnalyzer::Stems::kStore, stored);
    analyzer.Words("20211121", WordAnalyzer::Stems::kAsk, asked);

    EXPECT_THAT(stored.list, ElementsAre("1", "2021", "20211121", "0007")) << language;
    EXPECT_THAT(asked.list, ElementsAre("20211121", "=~20211121")) << language;
  }
  EXPECT_THAT(Words("3pages", WordAnalyzer::Stems::kStore), ElementsAre("3pages", "=~3page"));
}

TEST(WordsTest, KeywordIsOneFoldedToken) {
  WordAnalyzer analyzer({});
  Tokens tokens;

  analyzer.Keyword("F/2.8 Sehr Sch\u00f6n", tokens);

  EXPECT_THAT(tokens.list, ElementsAre("f/2.8 sehr schon"));
}

TEST(WordsTest, PiecesAreThreeCharactersAndShorterAtTheEnd) {
  WordAnalyzer analyzer({});
  Tokens stored;
  Tokens asked;
  Tokens short_asked;

  analyzer.Pieces("\u00c9t\u00e9.x", false, stored);
  analyzer.Pieces("\u00c9t\u00e9.x", true, asked);
  analyzer.Pieces("x1", true, short_asked);

  EXPECT_THAT(stored.list, ElementsAre("ete", "te.", "e.x", ".x", "x"));
  EXPECT_THAT(asked.list, ElementsAre("ete", "te.", "e.x"));
  EXPECT_THAT(short_asked.list, ElementsAre("x1"));
}

TEST(FoldTest, TakesAnyBytesAndIsStable) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    bytes += static_cast<char>(i);
  }
  const std::string once = Fold(bytes);
  EXPECT_EQ(Fold(once), once);
  EXPECT_EQ(Fold("caf\xe9"), "cafe");
}

TEST(UnicodeFormsTest, GivesTheOtherFormsOfUtf8Alone) {
  EXPECT_THAT(UnicodeForms("plain"), ElementsAre("plain"));
  EXPECT_THAT(UnicodeForms("\u00e9"), ElementsAre("\u00e9", "e\u0301"));
  EXPECT_THAT(UnicodeForms("e\u0301"), ElementsAre("e\u0301", "\u00e9"));
  EXPECT_THAT(UnicodeForms("e\u0301\xff"), ElementsAre("e\u0301\xff"));
}

}  // namespace
}  // namespace search
