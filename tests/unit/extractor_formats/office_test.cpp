// Office documents and books.
#include <gtest/gtest.h>

#include "tests/unit/extractor_formats/extraction.h"

namespace orbisk::test {
namespace {

constexpr char kSentence[] = "The grey heron came to the weir at dawn. Zażółć gęślą jaźń.";

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(Office, DocumentsOfWritersGiveTextAndProperties) {
  for (const char* name : {"letter.docx", "letter.odt", "slides.pptx"}) {
    // Without its name: the content tells.
    const Extraction extraction = Extract(Sample(name), "");

    EXPECT_EQ(extraction.error, "") << name;
    EXPECT_TRUE(Contains(extraction.Text(), kSentence)) << name << extraction.Text();
    EXPECT_TRUE(Contains(extraction.Text(), "first sighting\nsecond sighting\n")) << name << extraction.Text();
    EXPECT_TRUE(Contains(extraction.Text(), "weir\n17")) << name;
    EXPECT_EQ(extraction["NIMOMDTitle"], "The Heron Report") << name;
    EXPECT_EQ(extraction["NIMOMDAuthors"], "Ada Quill") << name;
    EXPECT_EQ(extraction["NIMOMDSubject"], "Birds") << name;
    EXPECT_EQ(extraction["NIMOMDKeywords"], "heron, weir") << name;
    EXPECT_EQ(extraction.document["NIMOMDContentCreationDate"].asInt64(), 1'700'000'000) << name;
  }
}

TEST(Office, MediaTypesAreThoseOfTheFormats) {
  EXPECT_EQ(Extract(Sample("letter.docx"))["NIMOMDContentType"],
            "application/vnd.openxmlformats-officedocument.wordprocessingml.document");
  EXPECT_EQ(Extract(Sample("slides.pptx"))["NIMOMDContentType"],
            "application/vnd.openxmlformats-officedocument.presentationml.presentation");
  EXPECT_EQ(Extract(Sample("letter.odt"))["NIMOMDContentType"], "application/vnd.oasis.opendocument.text");
  EXPECT_EQ(Extract(Sample("book.epub"))["NIMOMDContentType"], "application/epub+zip");
}

TEST(Office, AZipIsNotWhatItCallsItselfUnlessThatIsADocument) {
  const Extraction extraction = Extract(MakeArchive("zip", "", {{"mimetype", "text/html"}, {"heron.txt", "x"}}));

  EXPECT_EQ(extraction["NIMOMDContentType"], "application/zip");
  EXPECT_EQ(extraction.Text(), "mimetype\nheron.txt");
}

TEST(Office, BooksGiveTheirPages) {
  const Extraction extraction = Extract(Sample("book.epub"));

  EXPECT_EQ(extraction.error, "");
  EXPECT_TRUE(Contains(extraction.Text(), kSentence)) << extraction.Text();
  EXPECT_EQ(extraction["NIMOMDTitle"], "The Heron Report");
  EXPECT_EQ(extraction["NIMOMDAuthors"], "Ada Quill");
  EXPECT_EQ(extraction["NIMOMDKeywords"], "Birds");
}

Entries Workbook(const std::string& sheet) {
  return {{"[Content_Types].xml", "<Types/>"},
          {"xl/workbook.xml",
           "<x:workbook xmlns:x='urn:x'><x:sheets><x:sheet name='Sightings' sheetId='1'/></x:sheets></x:workbook>"},
          {"xl/worksheets/sheet1.xml", sheet},
          {"xl/sharedStrings.xml",
           "<sst><si><t>heron</t></si><si><r><t>grey </t></r><r><t>wagtail</t></r>"
           "<rPh><t>unsaid</t></rPh></si></sst>"},
          {"docProps/app.xml", "<Properties><Company>Weir Watch</Company><Manager>Bo</Manager></Properties>"}};
}

TEST(Office, WorkbooksGiveStringsAndNumbersOfTheirCells) {
  const std::string sheet =
      "<worksheet><sheetData><row><c t='s'><v>0</v></c><c><v>1723</v></c><c t='b'><v>1</v></c>"
      "<c t='inlineStr'><is><t>dipper</t></is></c><c t='str'><f>A1&amp;\"!\"</f><v>heron!</v></c></row>"
      "</sheetData></worksheet>";

  const Extraction extraction = Extract(MakeArchive("zip", "", Workbook(sheet)));

  EXPECT_EQ(extraction.error, "");
  EXPECT_EQ(extraction["NIMOMDContentType"], "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet");
  EXPECT_EQ(extraction.Text(), "Sightings\n1723 dipper heron!\nheron\ngrey wagtail");
  EXPECT_EQ(extraction["NIMOMDOrganizations"], "Weir Watch");
  EXPECT_EQ(extraction["NIMOMDManager"], "Bo");
}

Entries OpenDocument(const std::string& kind, const std::string& body, const std::string& manifest = "<m/>") {
  return {{"mimetype", "application/vnd.oasis.opendocument." + kind},
          {"content.xml",
           "<o:document-content xmlns:o='urn:o' xmlns:t='urn:t'><o:font-face-decls>unsaid</o:font-face-decls><o:body>" +
               body + "</o:body></o:document-content>"},
          {"meta.xml",
           "<m:meta xmlns:m='urn:m'><m:keyword>one</m:keyword><m:keyword>two</m:keyword>"
           "<m:document-statistic m:page-count='3' m:word-count='120'/></m:meta>"},
          {"META-INF/manifest.xml", manifest}};
}

TEST(Office, OpenSpreadsheetsAndPresentationsGiveTheirWords) {
  const std::string table =
      "<t:table t:name='Birds'><t:table-row><t:table-cell><t:p>heron</t:p></t:table-cell><t:table-cell><t:p>17</t:p>"
      "</t:table-cell></t:table-row></t:table>";
  const std::string slide =
      "<t:page><t:p>grey<t:s/>heron</t:p><t:tracked-changes><t:p>gone</t:p></t:tracked-changes></t:page>";

  const Extraction sheet = Extract(MakeArchive("zip", "", OpenDocument("spreadsheet", table)));
  const Extraction slides = Extract(MakeArchive("zip", "", OpenDocument("presentation", slide)));

  EXPECT_EQ(sheet.Text(), "Birds\nheron\n17");
  EXPECT_EQ(sheet["NIMOMDContentType"], "application/vnd.oasis.opendocument.spreadsheet");
  EXPECT_EQ(sheet["NIMOMDKeywords"], "one\ntwo");
  EXPECT_EQ(sheet.document["NIMOMDNumberOfPages"].asInt(), 3);
  EXPECT_EQ(sheet.document["NIMOMDWordCount"].asInt(), 120);
  EXPECT_EQ(slides.Text(), "grey heron");
}

TEST(Office, TablesAndSlidesOfOtherWritersGiveTheirWords) {
  for (const char* name : {"table.xlsx", "table.ods"}) {
    const Extraction extraction = Extract(Sample(name), "");

    EXPECT_EQ(extraction.error, "") << name;
    for (const char* cell : {"place", "17", "grey heron", "2.5", "Zażółć gęślą jaźń", "dipper"}) {
      EXPECT_TRUE(Contains(extraction.Text(), cell)) << name << cell << extraction.Text();
    }
  }
  const Extraction slides = Extract(Sample("slides.odp"), "");
  EXPECT_EQ(slides.error, "");
  EXPECT_EQ(slides.Text(), "The grey heron came to the weir at dawn.\nfirst sighting\nZażółć gęślą jaźń.");
  EXPECT_EQ(slides["NIMOMDTitle"], "The Heron Report");
  EXPECT_EQ(slides["NIMOMDAuthors"], "Ada Quill");
}

TEST(Office, AnEncryptedDocumentSaysSoAndIsNotBroken) {
  const std::string manifest = "<m:manifest xmlns:m='urn:m'><m:encryption-data/></m:manifest>";
  Entries entries = OpenDocument("text", "", manifest);
  entries[1].second = "\x01\x02 not XML";

  const Extraction extraction = Extract(MakeArchive("zip", "", entries));

  EXPECT_EQ(extraction.error, "");
  EXPECT_EQ(extraction["NIMOMDSecurityMethod"], "Password Encrypted");
}

TEST(Office, ADocumentCutAtTheBoundStillGivesItsProperties) {
  const Extraction extraction = Extract(Sample("letter.docx"), "", 20);

  EXPECT_TRUE(extraction.result.cut);
  EXPECT_EQ(extraction.Text(), "The Heron Report\nAda");
  EXPECT_EQ(extraction["NIMOMDSubject"], "Birds");
}

TEST(Office, ABombOfMarkupThatHoldsNoTextIsRefused) {
  const std::string bomb =
      MakeArchive("zip", "", Workbook("<worksheet>" + std::string(std::size_t{64} << 20, ' ') + "</worksheet>"));
  ASSERT_LT(bomb.size(), 200'000U);

  const Extraction extraction = Extract(bomb, "a.xlsx");

  EXPECT_NE(extraction.error.find("times its size"), std::string::npos) << extraction.error;
  EXPECT_EQ(extraction.Text(), "Sightings");
}

TEST(Office, ABombOfTextEndsAtTheBoundOfTheText) {
  std::string words;
  words.reserve(std::size_t{66} << 20);
  for (std::size_t i = 0; i < (std::size_t{64} << 20) / 8; ++i) {
    words += "heron 1 ";
  }
  const std::string bomb = MakeArchive("zip", "", OpenDocument("text", "<t:p>" + words + "</t:p>"));

  const Extraction extraction = Extract(bomb, "a.odt");

  EXPECT_TRUE(extraction.result.cut);
  EXPECT_EQ(extraction.error, "");
  EXPECT_EQ(extraction["NIMOMDKeywords"], "one\ntwo");
}

TEST(Office, EntityBombsAndDeepXmlWithinAreRefused) {
  std::string deep;
  for (int i = 0; i < 100'000; ++i) {
    deep += "<t:p>";
  }
  Entries lol = OpenDocument("text", "");
  lol[1].second = "<!DOCTYPE a [<!ENTITY a 'xxxxxxxxxx'><!ENTITY b '&a;&a;&a;&a;'>]><a>&b;</a>";

  EXPECT_NE(Extract(MakeArchive("zip", "", OpenDocument("text", deep))).error.find("broken XML"), std::string::npos);
  EXPECT_NE(Extract(MakeArchive("zip", "", lol)).error.find("made of entities"), std::string::npos);
}

TEST(Office, ATruncatedDocumentFailsWithAReason) {
  const std::string whole = Sample("letter.docx");

  const Extraction extraction = Extract(whole.substr(0, whole.size() / 2), "letter.docx");

  EXPECT_NE(extraction.error, "");
}

}  // namespace
}  // namespace orbisk::test
