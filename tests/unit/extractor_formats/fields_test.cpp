// Fields are typed, bounded, and dates are read in the forms that formats write them in.
#include "services/extractor/formats/fields.h"

#include <gtest/gtest.h>

#include <cmath>

namespace extractor {
namespace {

TEST(Fields, ReadsDatesInTheFormsThatFormatsWrite) {
  const struct {
    const char* text;
    std::int64_t seconds;
  } rows[] = {{"1970-01-01T00:00:00Z", 0},
              {"2024-03-01T10:20:30Z", 1709288430},
              {"2024-03-01T10:20:30.25Z", 1709288430},
              {"2024-03-01T10:20:30+02:00", 1709281230},
              {"2024-03-01T10:20:30-0130", 1709293830},
              {"2024:03:01 10:20:30", 1709288430},
              {"2024-03-01 10:20", 1709288400},
              {"2024-03-01", 1709251200},
              {"2024-03", 1709251200},
              {"2024", 1704067200},
              {"2024-02-29", 1709164800}};
  for (const auto& row : rows) {
    Json::Value document;
    Fields(document).Date("d", row.text);
    EXPECT_EQ(document["d"].asInt64(), row.seconds) << row.text;
  }
}

TEST(Fields, WritesNoDateForWhatIsNone) {
  for (const char* text :
       {"", "soon", "0000-00-00", "0000:00:00 00:00:00", "2023-02-29", "2024-13-01", "-2024", "17"}) {
    Json::Value document;
    Fields(document).Date("d", text);
    EXPECT_FALSE(document.isMember("d")) << text;
  }
}

TEST(Fields, KeepsEachLineOfAListOnce) {
  Json::Value document;
  Fields fields(document);

  fields.AddLine("k", "heron");
  fields.AddLine("k", " weir ");
  fields.AddLine("k", "heron");
  fields.AddLine("k", "her");
  fields.AddLine("k", "");

  EXPECT_EQ(document["k"].asString(), "heron\nweir\nher");
}

TEST(Fields, BoundsAListHoweverManyLinesCome) {
  Json::Value document;
  Fields fields(document);

  for (int i = 0; i < 10'000; ++i) {
    fields.AddLine("k", "keyword number " + std::to_string(i));
  }

  EXPECT_LE(document["k"].asString().size(), 65'536U);
}

TEST(Fields, LeavesOutWhatSaysNothing) {
  Json::Value document;
  Fields fields(document);

  fields.Text("t", " \n ");
  fields.Fraction("f", NAN);
  fields.Fraction("f", INFINITY);
  fields.IntegerText("i", "many");

  EXPECT_TRUE(document.empty());
}

TEST(Fields, KeepsTheFirstOfSeveralSources) {
  Json::Value document;
  Fields fields(document);

  fields.TextIfMissing("t", "");
  fields.TextIfMissing("t", "first");
  fields.TextIfMissing("t", "second");

  EXPECT_EQ(document["t"].asString(), "first");
}

}  // namespace
}  // namespace extractor
