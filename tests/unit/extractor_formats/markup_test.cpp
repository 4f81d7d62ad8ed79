// Web pages and XML, with what attacks their readers.
#include <gtest/gtest.h>

#include "tests/unit/extractor_formats/extraction.h"

namespace orbisk::test {
namespace {

TEST(Html, GivesItsWordsAndNotItsScripts) {
  const Extraction extraction = Extract(
      "<!DOCTYPE html><html lang='en'><head><title>The &amp; Heron</title><meta name='author' content='Ada Quill'>"
      "<meta name=keywords content='heron, weir'><meta name=description content='On birds'>"
      "<style>p { color: gray }</style><script>var hidden = '<p>secret</p>';</script></head>"
      "<body><h1>Arrival</h1><p>The <b>grey</b> her<i>on</i>&nbsp;came.<br>At dawn<noscript>switch on</noscript>"
      "<table><tr><td>weir<td>17</table><img src=a.png alt='a bird'></body></html>");

  EXPECT_EQ(extraction.Text(), "Arrival\nThe grey heron\u00A0came.\nAt dawn\nweir 17\na bird");
  EXPECT_EQ(extraction["NIMOMDTitle"], "The & Heron");
  EXPECT_EQ(extraction["NIMOMDAuthors"], "Ada Quill");
  EXPECT_EQ(extraction["NIMOMDKeywords"], "heron, weir");
  EXPECT_EQ(extraction["NIMOMDDescription"], "On birds");
  EXPECT_EQ(extraction["NIMOMDLanguages"], "en");
  EXPECT_EQ(extraction["NIMOMDContentType"], "text/html");
}

TEST(Html, IsReadInTheCharacterSetThatItDeclares) {
  const Extraction meta = Extract(
      "<html><head><meta http-equiv=Content-Type content=\"text/html; charset=windows-1251\"><title>x</title></head>"
      "<body>\xF6\xE0\xEF\xEB\xFF</body></html>");
  const Extraction short_form =
      Extract("<html><head><meta charset='iso-8859-1'></head><body>gr\xFCn \x80</body></html>");
  const Extraction wrong = Extract("<html><head><meta charset=iso-8859-1></head><body>zażółć</body></html>");

  EXPECT_EQ(meta.Text(), "цапля");
  EXPECT_EQ(short_form.Text(), "grün €");
  EXPECT_EQ(wrong.Text(), "zażółć") << "what is UTF-8 is read as UTF-8, whatever it says";
}

TEST(Html, IsKnownByItsFirstTagWhateverItsName) {
  for (const char* start :
       {"<!DOCTYPE html>", "\n <!doctype HTML PUBLIC \"-//W3C//DTD HTML 4.01//EN\">", "<HTML>", "<html lang=en>"}) {
    const Extraction extraction = Extract(std::string(start) + "<body><p>heron</p></body></html>", "a");

    EXPECT_EQ(extraction["NIMOMDContentType"], "text/html") << start;
    EXPECT_EQ(extraction.Text(), "heron") << start;
  }
}

TEST(Html, WithoutADoctypeIsKnownByItsNameAndATag) {
  const Extraction extraction = Extract("grey <b>heron</b> came to the weir\n", "a.html");

  EXPECT_EQ(extraction.Text(), "grey heron came to the weir");
}

TEST(Html, IsRefusedWhenItNestsWithoutEndAndKeepsWhatCameBefore) {
  std::string page = "<html><body>heron ";
  for (int i = 0; i < 200'000; ++i) {
    page += "<div>";
  }

  const Extraction extraction = Extract(page, "a.html");

  EXPECT_NE(extraction.error.find("nested deeper"), std::string::npos) << extraction.error;
  EXPECT_EQ(extraction.Text(), "heron");
}

TEST(Html, IsCutAtTheBound) {
  std::string page = "<html><body>";
  for (int i = 0; i < 5000; ++i) {
    page += "<p>heron</p>";
  }

  const Extraction extraction = Extract(page, "a.html", 1000);

  EXPECT_TRUE(extraction.result.cut);
  EXPECT_GT(extraction.Text().size(), 990U);
}

TEST(Xml, GivesItsCharacterData) {
  const Extraction extraction = Extract(
      "<?xml version=\"1.0\"?>\n<book><title>The Heron</title><p id='no'>came <b>at</b>&#32;dawn</p>"
      "<![CDATA[<weir>]]><!-- unsaid --></book>");

  EXPECT_EQ(extraction.Text(), "The Heron came at dawn <weir>");
  EXPECT_EQ(extraction["NIMOMDTitle"], "The Heron");
}

TEST(Xml, IsReadInTheEncodingThatItDeclares) {
  const Extraction extraction = Extract("<?xml version=\"1.0\" encoding=\"koi8-r\"?><a>\xC3\xC1\xD0\xCC\xD1</a>");

  EXPECT_EQ(extraction.Text(), "цапля");
}

TEST(Xml, TakesAnEntityThatIsPlainTextForItsText) {
  const Extraction extraction = Extract(
      "<?xml version=\"1.0\"?><!DOCTYPE a [<!ENTITY bird \"grey heron\">]><a>the &bird; came&nbsp;&eacute;</a>");

  EXPECT_EQ(extraction.error, "");
  EXPECT_EQ(extraction.Text(), "the grey heron came\u00A0é");
}

TEST(Xml, RefusesEntitiesThatAreMadeOfEntities) {
  std::string bomb = "<?xml version=\"1.0\"?><!DOCTYPE a [<!ENTITY l0 \"lol\">";
  for (int i = 1; i < 10; ++i) {
    bomb += "<!ENTITY l" + std::to_string(i) + " \"";
    for (int k = 0; k < 10; ++k) {
      bomb += "&l" + std::to_string(i - 1) + ";";
    }
    bomb += "\">";
  }
  bomb += "]><a>&l9;</a>";

  const Extraction extraction = Extract(bomb, "a.xml");

  EXPECT_NE(extraction.error.find("made of entities"), std::string::npos) << extraction.error;
}

TEST(Xml, RefusesALongEntityThatWouldBeUsedOftenAndManyEntities) {
  std::string many = "<?xml version=\"1.0\"?><!DOCTYPE a [";
  for (int i = 0; i < 2000; ++i) {
    many += "<!ENTITY e" + std::to_string(i) + " \"x\">";
  }
  const std::string large =
      "<?xml version=\"1.0\"?><!DOCTYPE a [<!ENTITY l \"" + std::string(100'000, 'x') + "\">]><a>&l;&l;</a>";

  EXPECT_NE(Extract(large, "a.xml").error.find("an entity of 100000 bytes"), std::string::npos);
  EXPECT_NE(Extract(many + "]><a/>", "a.xml").error.find("more than 1000 entities"), std::string::npos);
}

TEST(Xml, LoadsNothingFromOutside) {
  const Extraction extraction = Extract(
      "<?xml version=\"1.0\"?><!DOCTYPE a SYSTEM \"file:///etc/hostname\" [<!ENTITY f SYSTEM \"file:///etc/passwd\">"
      "<!ENTITY % p SYSTEM \"file:///etc/passwd\"> %p;]><a>heron &f;</a>",
      "a.xml");

  EXPECT_EQ(extraction.Text().find("root"), std::string::npos) << extraction.Text();
}

TEST(Xml, IsRefusedWhenItNestsWithoutEnd) {
  std::string text = "<?xml version=\"1.0\"?>";
  for (int i = 0; i < 100'000; ++i) {
    text += "<a>";
  }

  const Extraction extraction = Extract(text, "a.xml");

  EXPECT_NE(extraction.error.find("broken XML"), std::string::npos);
}

TEST(Xml, ThatIsBrokenKeepsWhatCameBefore) {
  const Extraction extraction = Extract("<?xml version=\"1.0\"?><a><b>heron</b><c>weir</a>", "a.xml");

  EXPECT_NE(extraction.error, "");
  EXPECT_EQ(extraction.Text(), "heron weir");
}

TEST(Xml, ThatIsAPageIsReadAsOne) {
  const Extraction extraction = Extract(
      "<?xml version=\"1.0\" encoding=\"utf-8\"?><html "
      "xmlns=\"http://www.w3.org/1999/xhtml\"><head><title>Heron</title>"
      "<script>var secret;</script></head><body><p>came&nbsp;<br/>in</p></body></html>");

  EXPECT_EQ(extraction.Text(), "came\u00A0\nin") << extraction.result.media_type;
  EXPECT_EQ(extraction["NIMOMDTitle"], "Heron");
}

TEST(Xml, OfADrawingGivesItsWords) {
  const Extraction extraction = Extract(
      "<?xml version=\"1.0\"?><svg xmlns=\"http://www.w3.org/2000/svg\"><title>Map</title><text>weir</text></svg>");

  EXPECT_EQ(extraction.Text(), "Map weir");
  EXPECT_EQ(extraction["NIMOMDTitle"], "Map");
}

}  // namespace
}  // namespace orbisk::test
