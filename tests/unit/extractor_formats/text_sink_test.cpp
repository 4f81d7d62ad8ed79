// The text that reaches the index is valid and bounded, whatever was read.
#include "services/extractor/formats/text_sink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "services/extractor/formats/charset.h"
#include "services/extractor/formats/plain_bytes.h"

namespace extractor {
namespace {

/// iconv's word on it: only what has a form in UTF-16 is a character.
bool IsCharacter(std::string piece) {
  const iconv_t handle = iconv_open("UTF-16LE", "UTF-8");
  char out[16];
  char* from = piece.data();
  char* to = out;
  std::size_t left = piece.size();
  std::size_t room = sizeof(out);
  const bool is_valid = iconv(handle, &from, &left, &to, &room) == 0;
  iconv_close(handle);
  return is_valid;
}

/// Replaces what is no character, one byte position at a time: slow and plain.
std::string NaiveClean(const std::string& bytes) {
  std::string out;
  std::size_t at = 0;
  while (at < bytes.size()) {
    const auto byte = static_cast<unsigned char>(bytes[at]);
    if (byte < 0x80) {
      const bool ends_line = byte == '\r' || byte == '\f' || byte == '\v';
      if (ends_line) {
        out += at + 1 < bytes.size() && bytes[at + 1] == '\n' ? "" : "\n";
      } else {
        out += byte >= 0x20 && byte != 0x7F ? static_cast<char>(byte) : byte == '\n' || byte == '\t' ? bytes[at] : ' ';
      }
      ++at;
      continue;
    }
    std::size_t best = 0;
    for (std::size_t length = 2; length <= 4 && at + length <= bytes.size(); ++length) {
      const std::string piece = bytes.substr(at, length);
      if (IsCharacter(piece)) {
        best = length;
        break;
      }
    }
    if (best > 0) {
      out += bytes.substr(at, best);
      at += best;
    } else {
      out += '?';
      ++at;
    }
  }
  return out;
}

/// Runs of replaced characters count as one: how many a broken sequence becomes is a matter of taste.
std::string Squeeze(std::string text, const std::string& mark) {
  std::string out;
  std::size_t at = 0;
  while (at < text.size()) {
    if (text.compare(at, mark.size(), mark) == 0) {
      out += out.ends_with('?') ? "" : "?";
      at += mark.size();
    } else {
      out += text[at++];
    }
  }
  return out;
}

std::string RandomBytes(std::mt19937& random) {
  static constexpr std::string_view kPieces[] = {
      "a",    " ",        "\n",       "\r",   "\x01", "\x7F",         "\xC3\xA9", "\xE4\xBD\xA0", "\xF0\x9F\xA6\x86",
      "\xC3", "\xE4\xBD", "\xF0\x9F", "\x80", "\xFF", "\xED\xA0\x80", "\xC0\x80", "\xF5\x80"};
  std::string bytes;
  for (int i = 0; i < 30; ++i) {
    bytes += kPieces[random() % std::size(kPieces)];
  }
  return bytes;
}

TEST(CleanUtf8, AgreesWithASlowReadingOfRandomBytes) {
  std::mt19937 random(7);
  for (int i = 0; i < 2000; ++i) {
    const std::string bytes = RandomBytes(random);

    const std::string clean = CleanUtf8(bytes);

    EXPECT_EQ(ValidUtf8Prefix(clean).bytes, clean.size());
    EXPECT_EQ(Squeeze(clean, "\xEF\xBF\xBD"), Squeeze(NaiveClean(bytes), "?")) << testing::PrintToString(bytes);
  }
}

TEST(TextSink, DoesNotMindWhereCharactersAreSplitBetweenCalls) {
  std::mt19937 random(8);
  for (int i = 0; i < 500; ++i) {
    std::string bytes = RandomBytes(random);
    std::erase(bytes, '\r');  // whether a newline follows is only seen within a call
    TextSink whole(1000);
    whole.Append(bytes);
    TextSink pieces(1000);

    for (std::size_t at = 0; at < bytes.size();) {
      const std::size_t count = 1 + random() % 4;
      pieces.Append(std::string_view(bytes).substr(at, count));
      at += count;
    }

    EXPECT_EQ(pieces.Take(), whole.Take()) << testing::PrintToString(bytes);
  }
}

TEST(TextSink, CutsBeforeACharacterThatDoesNotFit) {
  for (std::size_t limit = 0; limit < 12; ++limit) {
    TextSink sink(limit);

    sink.Append("\xE4\xBD\xA0\xE5\xA5\xBD\xF0\x9F\xA6\x86");

    EXPECT_TRUE(sink.cut() == (limit < 10)) << limit;
    const std::size_t expected = limit >= 10 ? 10 : limit >= 6 ? 6 : limit >= 3 ? 3 : 0;
    EXPECT_EQ(sink.Take().size(), expected) << limit;
  }
}

TEST(TextSink, IsNotCutByTextThatFitsExactly) {
  TextSink sink(5);

  sink.Append("heron");
  sink.Break();

  EXPECT_FALSE(sink.cut());
  EXPECT_EQ(sink.Take(), "heron");
}

TEST(TextSink, KeepsNothingAfterTheCutSoThatNoWordsMeetAcrossAGap) {
  TextSink sink(4);

  sink.Append("ab\xE4\xBD\xA0");
  sink.Append("c");

  EXPECT_EQ(sink.Take(), "ab");
}

TEST(TextSink, FlowsWhiteSpaceOfAnyLengthIntoOneBlank) {
  TextSink sink(100);

  sink.AppendFlowing("  grey \n\t he");
  sink.AppendFlowing("ron ");
  sink.AppendFlowing("  waits");
  sink.Break();
  sink.Break();
  sink.AppendFlowing(" on");

  EXPECT_EQ(sink.Take(), "grey heron waits\non");
}

TEST(TextSink, FlowsAsItDoesCharacterByCharacter) {
  static constexpr std::string_view kCharacters[] = {"a", "b", " ", " ", "\n", "\xC3\xA4"};
  std::mt19937 random(4);
  for (int round = 0; round < 2'000; ++round) {
    const std::size_t limit = 1 + random() % 30;
    TextSink whole(limit);
    TextSink piecewise(limit);
    std::string text;

    for (std::size_t i = random() % 40; i > 0; --i) {
      const std::string_view character = kCharacters[random() % std::size(kCharacters)];
      text += character;
      piecewise.AppendFlowing(character);
    }
    whole.AppendFlowing(text);

    EXPECT_EQ(whole.Take(), piecewise.Take()) << text << limit;
  }
}

TEST(PlainRun, StopsBeforeTheEightBytesThatHoldAnother) {
  for (int byte = 0; byte < 256; ++byte) {
    for (std::size_t place = 0; place < 24; ++place) {
      std::string bytes(24, '~');
      bytes[place] = static_cast<char>(byte);
      const bool is_plain = byte >= ' ' && byte < 0x7F;

      EXPECT_EQ(PlainRun(bytes, 0), is_plain ? 24 : place / 8 * 8) << byte << " at " << place;
    }
  }
  EXPECT_EQ(PlainRun("0123456789", 1), 8U);
  EXPECT_EQ(PlainRun("0123456", 0), 0U);
}

constexpr std::string_view kCharacters[] = {"\xC3\xA4",         "\xE2\x82\xAC", "\xF0\x9F\x90\xA6",
                                            "\xED\xA0\x80",     "\xC0\xAF",     "\xE2\x82",
                                            "\xF4\x90\x80\x80", "\x80",         "\xE0\x9F\xBF"};

std::string LettersAndOthers(std::mt19937& random) {
  std::string bytes = "plain letters " + std::string(random() % 4, 'x');
  for (std::size_t i = random() % 4; i > 0; --i) {
    bytes += kCharacters[random() % std::size(kCharacters)];
  }
  return bytes;
}

TEST(ValidUtf8Prefix, IsAllOfWhatNeedsNoReplacement) {
  std::mt19937 random(5);
  int valid = 0;
  for (int round = 0; round < 20'000; ++round) {
    const std::string bytes = LettersAndOthers(random);

    const Utf8Prefix prefix = ValidUtf8Prefix(bytes);

    EXPECT_EQ(prefix.bytes == bytes.size(), CleanUtf8(bytes) == bytes) << testing::PrintToString(bytes);
    valid += prefix.bytes == bytes.size() ? 1 : 0;
  }
  EXPECT_GT(valid, 1'000);
}

TEST(ValidUtf8Prefix, EndsBeforeTheFirstCharacterThatIsNoneOrSplit) {
  const struct {
    std::string_view bytes;
    std::size_t valid;
    bool split;
  } rows[] = {{"", 0, false},
              {"heron", 5, false},
              {"heron \xC3\xA4", 8, false},
              {"a long line of herons \xE2\x82", 22, true},
              {"\xF0\x9F\x90", 0, true},
              {"\xE2\x82 and more", 0, false},
              {"h\xFFron", 1, false},
              {"h\xED\xA0", 1, false}};
  for (const auto& row : rows) {
    const Utf8Prefix prefix = ValidUtf8Prefix(row.bytes);

    EXPECT_EQ(prefix.bytes, row.valid) << row.bytes;
    EXPECT_EQ(prefix.split, row.split) << row.bytes;
  }
}

TEST(IsUtf8, ForgivesSurrogatesAndASplitCharacterAtTheEndOfAPiece) {
  EXPECT_TRUE(IsUtf8("z\u00F3\xED\xA0\xBD\xED\xB0\xA6 z\u00F3", true));
  for (const char* const split : {"zo\xC3", "zo\xE2\x82", "zo\xED", "zo\xED\xA0"}) {
    EXPECT_TRUE(IsUtf8(split, false)) << split;
    EXPECT_FALSE(IsUtf8(split, true)) << split;
  }
  for (const char* const none : {"zo\xC0\xAF", "zo\xE0\x80\xAF", "zo\xF4\x90\x80\x80", "as\xED \xA0", "zo\xED\xA0z"}) {
    EXPECT_FALSE(IsUtf8(none, false)) << none;
  }
}

// What iconv makes of each piece and of all at once is the same, wherever the pieces end.
TEST(Decoder, DoesNotMindWhereUtf8IsSplitBetweenCalls) {
  std::mt19937 random(9);
  for (int round = 0; round < 2'000; ++round) {
    const std::string bytes = LettersAndOthers(random) + LettersAndOthers(random);
    Decoder decoder("UTF-8");
    std::string pieces;

    for (std::size_t at = 0; at < bytes.size();) {
      const std::size_t count = std::min<std::size_t>(1 + random() % 6, bytes.size() - at);
      pieces += decoder.Decode(std::string_view(bytes).substr(at, count), at + count == bytes.size());
      at += count;
    }

    EXPECT_EQ(pieces, DecodeWhole("UTF-8", bytes)) << testing::PrintToString(bytes);
  }
}

TEST(Decoder, HandsOutAllButTheSplitEndOfEachPiece) {
  Decoder decoder("UTF-8");

  EXPECT_EQ(decoder.Decode("\u0446\u0430\xD0", false), "\u0446\u0430");
  EXPECT_EQ(decoder.Decode("\xBF\u043B\xD1", false), "\u043F\u043B");
  EXPECT_EQ(decoder.Decode("\x8F", true), "\u044F");
  EXPECT_EQ(decoder.Decode("heron\xD0", true), "heron\uFFFD");
}

}  // namespace
}  // namespace extractor
