// From files of all kinds, through extractor, library and search daemon, to a person's question.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "orbisk/fileindex/elastic_control.h"
#include "tests/system/search_box.h"

namespace orbisk::test {
namespace {

namespace elastic = fileindex::elastic;
namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr char kMail[] =
    "From: Ada Quill <ada@weir.example>\r\nTo: Bo <bo@weir.example>\r\nSubject: godwits\r\nMIME-Version: 1.0\r\n"
    "Content-Type: multipart/mixed; boundary=b\r\n\r\n"
    "--b\r\nContent-Type: text/plain\r\n\r\nThey probe the mud.\r\n"
    "--b\r\nContent-Type: image/png\r\nContent-Disposition: attachment; filename=\"dunlin.png\"\r\n\r\nxx\r\n--b--\r\n";

class SearchChain : public SearchBox {
 protected:
  void SetUp() override {
    SearchBox::SetUp();
    AddIndexedShare(OnFirst("docs"));
  }

  // Indexes one of the checked-in samples, under a name that says nothing.
  std::string IndexSample(const std::string& sample) const {
    std::string path = OnFirst("docs/x" + fs::path(sample).extension().string());
    Index("docs", path, ReadFile(std::string(SAMPLES_DIR) + "/" + sample));
    return path;
  }

  std::string IndexText(const std::string& name, const std::string& content) const {
    std::string path = OnFirst("docs/" + name);
    Index("docs", path, content);
    return path;
  }
};

TEST_F(SearchChain, TextMarkupAndMailAreFoundByTheirWords) {
  const std::string plain = IndexText("a.txt", "A kingfisher dives.");
  const std::string page = IndexText("b.html",
                                     "<html><head><title>Marsh</title><style>hidden</style></head><body><p>"
                                     "The b&iuml;ttern booms.</p></body></html>");
  const std::string mail = IndexText("c.eml", kMail);
  elastic::IndexCommit("docs");

  EXPECT_THAT(Find({"kingfishers diving"}), ElementsAre(plain));
  EXPECT_THAT(Find({"bittern"}), ElementsAre(page));
  EXPECT_THAT(Find({"title:marsh"}), ElementsAre(page));
  EXPECT_THAT(Find({"hidden"}), IsEmpty());
  EXPECT_THAT(Find({"\"probe the mud\""}), ElementsAre(mail));
  EXPECT_THAT(Find({"godwits"}), ElementsAre(mail));
  EXPECT_THAT(Find({"author:quill"}), ElementsAre(mail));
  EXPECT_THAT(Find({"dunlin"}), ElementsAre(mail));
}

TEST_F(SearchChain, DocumentsOfEveryOfficeAreFoundByTheirWords) {
  std::vector<std::string> paths;
  for (const char* const sample :
       {"paper.pdf", "letter.docx", "letter.odt", "slides.pptx", "slides.odp", "letter.rtf", "book.epub"}) {
    paths.push_back(IndexSample(sample));
  }
  const std::string workbook = IndexSample("table.xlsx");
  const std::string open_workbook = IndexSample("table.ods");
  elastic::IndexCommit("docs");

  EXPECT_THAT(Find({"\"came to the weir\""}), testing::UnorderedElementsAreArray(paths));
  EXPECT_THAT(Find({"reeds"}), ElementsAre(OnFirst("docs/x.pdf")));
  EXPECT_THAT(Find({"\"grey heron\"", "--type", "docx"}), ElementsAre(OnFirst("docs/x.docx")));
  EXPECT_THAT(Find({"gesla jaźń", "--type", "presentation"}),
              UnorderedElementsAre(OnFirst("docs/x.pptx"), OnFirst("docs/x.odp")));
  EXPECT_THAT(Find({"dipper"}), UnorderedElementsAre(workbook, open_workbook));
  EXPECT_THAT(Find({"kingfisher"}), IsEmpty());
}

TEST_F(SearchChain, MusicFilmsAndPhotosAreFoundByWhatTheySayOfThemselves) {
  std::vector<std::string> sounds;
  for (const char* const sample : {"sound.mp3", "sound.m4a", "sound.flac", "sound.ogg", "sound.wma"}) {
    sounds.push_back(IndexSample(sample));
  }
  std::vector<std::string> films;
  for (const char* const sample : {"film.mp4", "film.mkv", "film.mov", "film.avi"}) {
    films.push_back(IndexSample(sample));
  }
  const std::string photo = IndexSample("photo.jpg");
  const std::string picture = IndexSample("photo.png");
  elastic::IndexCommit("docs");

  EXPECT_THAT(Find({"album:\"reed songs\""}), testing::UnorderedElementsAreArray(sounds));
  EXPECT_THAT(Find({"composer:moor ext:flac"}), ElementsAre(OnFirst("docs/x.flac")));
  EXPECT_THAT(Find({"heron", "--type", "video"}), testing::UnorderedElementsAreArray(films));
  EXPECT_THAT(Find({"keyword:reeds"}), ElementsAre(photo));
  EXPECT_THAT(Find({"camera:field", "--type", "png"}), ElementsAre(picture));
  EXPECT_THAT(Find({"heron water", "--type", "photo"}), UnorderedElementsAre(photo, picture));
}

TEST_F(SearchChain, AnArchiveIsFoundByTheNamesInIt) {
  MakeFolder(OnFirst("inside"));
  WriteFile(OnFirst("inside/curlew.txt"), "secret words");
  MakeFolder(OnFirst("docs"));
  const std::string archive = OnFirst("docs/a.tar");
  ASSERT_EQ(RunProcess({"tar", "-C", OnFirst("inside"), "-cf", archive, "curlew.txt"}).exit_status, 0);

  elastic::IndexUpsert("docs", archive, true);
  elastic::IndexCommit("docs");

  EXPECT_THAT(Find({"curlew"}), ElementsAre(archive));
  EXPECT_THAT(Find({"\"secret words\""}), IsEmpty());
}

TEST_F(SearchChain, ANameThatIsNoTextIsFoundAndReturnedByteForByte) {
  const std::string path = IndexText("snipe \xff\xfe.txt", "jadeit");
  elastic::IndexCommit("docs");

  EXPECT_THAT(Find({"jadeit"}), ElementsAre(path));
  EXPECT_THAT(Find({"nip"}), ElementsAre(path));  // part of a name
}

TEST_F(SearchChain, WhatIsNotCommittedIsNotFound) {
  const std::string path = IndexText("a.txt", "kingfisher");
  EXPECT_THAT(Find({"kingfisher"}), IsEmpty());

  elastic::IndexCommit("docs");

  EXPECT_THAT(Find({"kingfisher"}), ElementsAre(path));
}

TEST_F(SearchChain, ARenamedFolderIsFoundUnderItsNewPathWithoutReadingAFile) {
  IndexText("old/a.txt", "kingfisher");
  IndexText("old/deep/b.txt", "kingfisher too");
  const std::string beside = IndexText("older/c.txt", "kingfisher as well");
  elastic::IndexUpsert("docs", OnFirst("docs/old"), true);
  elastic::IndexUpsert("docs", OnFirst("docs/old/deep"), true);
  elastic::IndexCommit("docs");

  fs::rename(OnFirst("docs/old"), OnFirst("docs/new"));
  StopExtractor();
  elastic::IndexRename("docs", OnFirst("docs/new"), OnFirst("docs/old"));
  elastic::IndexCommit("docs");

  const std::string moved = OnFirst("docs/new");
  EXPECT_THAT(Find({"kingfisher", "--sort", "path"}), ElementsAre(moved + "/a.txt", moved + "/deep/b.txt", beside));
  EXPECT_THAT(Find({"kingfisher folder:" + moved}), UnorderedElementsAre(moved + "/a.txt", moved + "/deep/b.txt"));
  EXPECT_THAT(Find({"kingfisher folder:" + moved + "/deep"}), ElementsAre(moved + "/deep/b.txt"));
  EXPECT_THAT(Find({"folder:" + OnFirst("docs/old")}), IsEmpty());
  EXPECT_THAT(Find({"type:folder", "--sort", "path"}), ElementsAre(moved, moved + "/deep"));
}

TEST_F(SearchChain, WhatLayInADeletedFolderIsFoundNoMore) {
  IndexText("gone/a.txt", "kingfisher");
  IndexText("gone/deep/b.txt", "kingfisher too");
  const std::string beside = IndexText("gone.txt", "kingfisher as well");
  elastic::IndexUpsert("docs", OnFirst("docs/gone"), true);
  elastic::IndexCommit("docs");

  elastic::IndexDelDir("docs", OnFirst("docs/gone"));
  elastic::IndexCommit("docs");

  EXPECT_THAT(Find({"kingfisher"}), ElementsAre(beside));
  EXPECT_THAT(Find({"type:folder"}), ElementsAre(OnFirst("docs/gone")));  // its own document is deleted by its path
  elastic::IndexDel("docs", OnFirst("docs/gone"));
  elastic::IndexCommit("docs");
  EXPECT_THAT(Find({"type:folder"}), IsEmpty());
}

TEST_F(SearchChain, AChangedFileIsFoundByItsNewWordsOnly) {
  const std::string path = IndexText("a.txt", "kingfisher");
  elastic::IndexCommit("docs");

  IndexText("a.txt", "bittern");
  elastic::IndexCommit("docs");

  EXPECT_THAT(Find({"kingfisher"}), IsEmpty());
  EXPECT_THAT(Find({"bittern"}), ElementsAre(path));
}

TEST_F(SearchChain, AttributesAreTakenOverAndTheTextStays) {
  const std::string path = IndexText("a.txt", "kingfisher");
  elastic::IndexCommit("docs");

  fs::permissions(path, fs::perms::owner_read);
  elastic::IndexAttr("docs", path);
  elastic::IndexCommit("docs");

  EXPECT_THAT(Find({"kingfisher NIMOMDPrivilege:0400"}), ElementsAre(path));
}

TEST_F(SearchChain, AKilledSearchDaemonHasAllThatWasCommittedAndNothingElse) {
  const std::string kept = IndexText("a.txt", "kingfisher");
  elastic::IndexCommit("docs");
  IndexText("b.txt", "kingfisher");

  KillSearchDaemon();
  StartSearchDaemon();

  WaitUntilOpen("docs");
  EXPECT_THAT(Find({"kingfisher"}), ElementsAre(kept));
}

}  // namespace
}  // namespace orbisk::test
