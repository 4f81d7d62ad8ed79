// What documents say of a file's attributes.
#include "services/extractor/attributes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "services/extractor/open_file.h"
#include "tests/support/temp_dir.h"

namespace extractor {
namespace {

using orbisk::test::TempDir;
using orbisk::test::WriteFile;

Json::Value DocumentOf(const Attributes& attributes, const std::string& path) {
  Json::Value document(Json::objectValue);
  AddAttributes(attributes, path, document);
  return document;
}

TEST(Attributes, AreWhatTheKernelSays) {
  const TempDir folder;
  WriteFile(folder / "file", std::string(5000, 'x'));
  ASSERT_EQ(chmod((folder / "file").c_str(), 04640), 0);
  const timespec times[] = {{1'000'000'000, 0}, {1'100'000'000, 7}};
  ASSERT_EQ(utimensat(AT_FDCWD, (folder / "file").c_str(), times, 0), 0);
  struct stat expected {};
  ASSERT_EQ(stat((folder / "file").c_str(), &expected), 0);

  const Json::Value document = DocumentOf(AttributesOf(OpenSubject(folder / "file").get()), "/share/a/Photo.JPG");

  EXPECT_EQ(document["NIMOMDPath"], "/share/a/Photo.JPG");
  EXPECT_EQ(document["NIMOMDParent"], "/share/a");
  EXPECT_EQ(document["NIMOMDFSName"], "Photo.JPG");
  EXPECT_EQ(document["NIMOMDDisplayName"], "Photo.JPG");
  EXPECT_EQ(document["NIMOMDExtension"], "jpg");
  EXPECT_EQ(document["NIMOMDKind"], "jpg");
  EXPECT_EQ(document["NIMOMDFSSize"], 5000);
  EXPECT_EQ(document["NIMOMDLogicalSize"], 5000);
  EXPECT_EQ(document["NIMOMDPhysicalSize"], Json::Int64{expected.st_blocks * 512});
  EXPECT_EQ(document["NIMOMDLastUsedDate"], 1'000'000'000);
  EXPECT_EQ(document["NIMOMDFSContentChangeDate"], 1'100'000'000);
  EXPECT_EQ(document["NIMOMDAttributeChangeDate"], Json::Int64{expected.st_ctim.tv_sec});
  EXPECT_EQ(document["NIMOMDOwnerUserID"], std::to_string(geteuid()));
  EXPECT_EQ(document["NIMOMDOwnerGroupID"], std::to_string(expected.st_gid));
  EXPECT_EQ(document["NIMOMDPrivilege"], "4640");
  EXPECT_EQ(document["NIMOMDIsDir"], false);
  EXPECT_EQ(document["NIMOMDIsEncrypted"], false);
}

TEST(Attributes, OfAFolderSayThatItIsOne) {
  const TempDir folder;

  const Json::Value document = DocumentOf(AttributesOf(OpenSubject(folder.path()).get()), folder.path());

  EXPECT_EQ(document["NIMOMDIsDir"], true);
}

TEST(Attributes, LeaveTheBirthOutWhereTheFileSystemDoesNotKeepIt) {
  Attributes unknown;
  Attributes known;
  known.has_born = true;
  known.born = 77;

  EXPECT_FALSE(DocumentOf(unknown, "/a/b").isMember("NIMOMDFSCreationDate"));
  EXPECT_EQ(DocumentOf(known, "/a/b")["NIMOMDFSCreationDate"], 77);
}

TEST(Attributes, SayThatAFileIsEncrypted) {
  Attributes attributes;
  attributes.encrypted = true;

  EXPECT_EQ(DocumentOf(attributes, "/a/b")["NIMOMDIsEncrypted"], true);
}

TEST(Attributes, HoldSizesAndDatesBeyond32Bits) {
  Attributes attributes;
  attributes.size_bytes = uint64_t{1} << 40;
  attributes.modified = int64_t{1} << 35;

  const Json::Value document = DocumentOf(attributes, "/a/b");

  EXPECT_EQ(document["NIMOMDFSSize"].asUInt64(), uint64_t{1} << 40);
  EXPECT_EQ(document["NIMOMDFSContentChangeDate"].asInt64(), int64_t{1} << 35);
}

TEST(Attributes, TakeTheExtensionAsTheLibraryDoes) {
  const std::pair<const char*, const char*> cases[] = {{"/s/a.tar.GZ", "gz"}, {"/s/.bashrc", "bashrc"},
                                                       {"/s/name", ""},       {"/s/name.", ""},
                                                       {"/s.x/name", ""},     {"/s/a.\xc3\x84", "\xc3\x84"}};
  for (const auto& [path, extension] : cases) {
    EXPECT_EQ(DocumentOf(Attributes(), path)["NIMOMDExtension"], extension) << path;
  }
}

TEST(CutNote, StandsBeforeWhatTheContentTellsOfItsCoverage) {
  Json::Value silent(Json::objectValue);
  Json::Value telling(Json::objectValue);
  telling["NIMOMDCoverage"] = "Europe";

  AddCutNote(silent);
  AddCutNote(telling);

  EXPECT_EQ(silent["NIMOMDCoverage"], "the beginning of the text");
  EXPECT_EQ(telling["NIMOMDCoverage"], "the beginning of the text\nEurope");
}

TEST(ContentDates, AreTheFilesWhereTheContentTellsNone) {
  Attributes attributes;
  attributes.modified = 5;
  attributes.has_born = true;
  attributes.born = 3;
  Json::Value document(Json::objectValue);
  document["NIMOMDContentCreationDate"] = 1;

  AddContentDates(attributes, document);

  EXPECT_EQ(document["NIMOMDContentCreationDate"], 1);
  EXPECT_EQ(document["NIMOMDContentModificationDate"], 5);
}

}  // namespace
}  // namespace extractor
