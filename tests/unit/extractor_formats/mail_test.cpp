// Mail: headers, words, names of attachments.
#include <gtest/gtest.h>

#include "tests/unit/extractor_formats/extraction.h"

namespace orbisk::test {
namespace {

constexpr char kHeaders[] =
    "From: Ada Quill <ada@weir.example>\r\nTo: Bo <bo@weir.example>, plain@weir.example\r\n"
    "Cc: =?utf-8?B?xbl1cmF3?= <z@weir.example>\r\nSubject: =?iso-8859-1?Q?Gr=FCne?= herons\r\n"
    "Date: Fri, 01 Mar 2024 10:20:30 +0200\r\nMessage-ID: <1@weir.example>\r\nMIME-Version: 1.0\r\n";

std::string Part(const std::string& headers, const std::string& body) {
  return "--b\r\n" + headers + "\r\n\r\n" + body + "\r\n";
}

std::string Multipart(const std::string& subtype, const std::string& parts) {
  return std::string(kHeaders) + "Content-Type: multipart/" + subtype + "; boundary=b\r\n\r\n" + parts + "--b--\r\n";
}

TEST(Mail, GivesWhoWroteToWhomWhenAndWhat) {
  const Extraction extraction =
      Extract(std::string(kHeaders) +
              "Content-Type: text/plain; charset=koi8-r\r\nContent-Transfer-Encoding: base64\r\n\r\nw8HQzNE=\r\n");

  EXPECT_EQ(extraction.error, "");
  EXPECT_EQ(extraction["NIMOMDContentType"], "message/rfc822");
  EXPECT_EQ(extraction["NIMOMDSubject"], "Grüne herons");
  EXPECT_EQ(extraction["NIMOMDTitle"], "Grüne herons");
  EXPECT_EQ(extraction["NIMOMDAuthors"], "Ada Quill");
  EXPECT_EQ(extraction["NIMOMDAuthorAddresses"], "ada@weir.example");
  EXPECT_EQ(extraction["NIMOMDRecipients"], "Bo\nplain@weir.example\nŹuraw");
  EXPECT_EQ(extraction["NIMOMDRecipientAddresses"], "bo@weir.example\nplain@weir.example\nz@weir.example");
  EXPECT_EQ(extraction["NIMOMDIdentifier"], "1@weir.example");
  EXPECT_EQ(extraction.document["NIMOMDContentCreationDate"].asInt64(), 1709281230);
  EXPECT_EQ(extraction.Text(), "цапля");
}

TEST(Mail, GivesTheNamesOfItsAttachmentsAndNotTheirContent) {
  const Extraction extraction = Extract(Multipart(
      "mixed",
      Part("Content-Type: text/plain", "The heron came.") +
          Part(
              "Content-Type: text/plain; name=\"notes.txt\"\r\nContent-Disposition: attachment; filename=\"notes.txt\"",
              "secret") +
          Part("Content-Type: image/png\r\nContent-Disposition: attachment; filename*=utf-8''%C5%BCuraw.png", "xx")));

  EXPECT_EQ(extraction.Text(), "The heron came.\nnotes.txt\nżuraw.png");
}

TEST(Mail, OfTwoFormsIsReadInThePlainOne) {
  const Extraction extraction = Extract(Multipart(
      "alternative", Part("Content-Type: text/html", "<p>rich</p>") + Part("Content-Type: text/plain", "plain heron")));

  EXPECT_EQ(extraction.Text(), "plain heron");
}

TEST(Mail, ThatIsAPageIsReadAsOne) {
  const Extraction extraction =
      Extract(Multipart("mixed", Part("Content-Type: text/html; charset=windows-1251",
                                      "<style>x</style><p>\xF6\xE0\xEF\xEB\xFF<script>secret</script>")));

  EXPECT_EQ(extraction.Text(), "цапля");
}

TEST(Mail, WithinAMailIsReadToo) {
  const Extraction extraction =
      Extract(Multipart("mixed", Part("Content-Type: message/rfc822", "Subject: inner heron\r\n\r\ninner words")));

  EXPECT_EQ(extraction.Text(), "inner heron\ninner words");
}

TEST(Mail, WhoseFirstHeaderIsUnusualIsKnownByItsName) {
  for (const char* first : {"X-Heron", "Heron", "Thread-Topic"}) {
    const Extraction extraction = Extract(std::string(first) + ": grey\r\nSubject: weir\r\n\r\nwords\r\n", "a.eml");

    EXPECT_EQ(extraction["NIMOMDSubject"], "weir") << first;
  }
}

TEST(Mail, NestedWithoutEndIsReadToItsBoundAndSaysSo) {
  std::string mail = "Subject: outer\r\nFrom: a@b\r\n";
  for (int i = 0; i < 500; ++i) {
    mail += "Content-Type: message/rfc822\r\n\r\nSubject: level " + std::to_string(i) + "\r\n";
  }

  const Extraction extraction = Extract(mail + "\r\nheron", "a.eml");

  EXPECT_TRUE(extraction.result.cut);
  EXPECT_EQ(extraction.Text().find("heron"), std::string::npos);
  EXPECT_NE(extraction.Text().find("level 3"), std::string::npos);
}

TEST(Mail, OfTensOfThousandsOfPartsIsReadToItsBound) {
  std::string parts;
  for (int i = 0; i < 20'000; ++i) {
    parts += Part("Content-Type: text/plain", "p");
  }

  const Extraction extraction = Extract(Multipart("mixed", parts), "a.eml");

  EXPECT_TRUE(extraction.result.cut);
}

}  // namespace
}  // namespace orbisk::test
