// Kinds of files, against a list of the extensions that stands beside this file.
#include "orbisk/fileindex/file_type.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/temp_dir.h"

namespace orbisk::fileindex::test {
namespace {

FileType TypeNamed(const std::string& name) {
  static const std::map<std::string, FileType> types = {{"document", FILE_TYPE_DOCUMENT},
                                                        {"audio", FILE_TYPE_AUDIO},
                                                        {"video", FILE_TYPE_VIDEO},
                                                        {"photo", FILE_TYPE_PHOTO}};
  return types.at(name);
}

// extensions.txt: an extension, a tab and its type in each line.
std::map<std::string, FileType> ListedTypes() {
  std::istringstream lines(orbisk::test::ReadFile(ORBISK_EXTENSIONS_FILE));
  std::map<std::string, FileType> types;
  for (std::string line; std::getline(lines, line);) {
    const size_t tab = line.find('\t');
    types.emplace(line.substr(0, tab), TypeNamed(line.substr(tab + 1)));
  }
  return types;
}

FileType TypeOfExtension(const std::string& extension) {
  return GetFileTypeByFullPath("/volume1/photo/name." + extension);
}

// What the list says of an extension: a type, or other.
FileType Expected(const std::map<std::string, FileType>& listed, const std::string& extension) {
  const auto found = listed.find(extension);
  return found == listed.end() ? FILE_TYPE_OTHER : found->second;
}

TEST(FileTypeNumbers, AreThoseOfTheFolderSwitches) {
  EXPECT_EQ(0, int{FILE_TYPE_DOCUMENT});
  EXPECT_EQ(1, int{FILE_TYPE_AUDIO});
  EXPECT_EQ(2, int{FILE_TYPE_VIDEO});
  EXPECT_EQ(3, int{FILE_TYPE_PHOTO});
  EXPECT_EQ(4, int{FILE_TYPE_OTHER});
}

TEST(FileTypeTable, KnowsEveryListedExtension) {
  const auto listed = ListedTypes();
  std::map<FileType, int> known;
  for (const auto& [extension, type] : listed) {
    EXPECT_EQ(type, TypeOfExtension(extension)) << "." << extension;
    ++known[TypeOfExtension(extension)];
  }
  const std::map<FileType, int> counts = {
      {FILE_TYPE_DOCUMENT, 649}, {FILE_TYPE_AUDIO, 25}, {FILE_TYPE_VIDEO, 31}, {FILE_TYPE_PHOTO, 33}};
  EXPECT_EQ(counts, known);
  EXPECT_EQ(738U, listed.size());
}

TEST(FileTypeTable, KnowsNoOtherExtensionOfUpToThreeBytes) {
  const auto listed = ListedTypes();
  std::string alphabet;
  for (char byte = '!'; byte <= '~'; ++byte) {
    if (byte != '/' && byte != '.' && (byte < 'A' || byte > 'Z')) {
      alphabet += byte;
    }
  }
  int wrong = 0;
  for (const char first : alphabet) {
    wrong += TypeOfExtension({first}) != Expected(listed, {first});
    for (const char second : alphabet) {
      wrong += TypeOfExtension({first, second}) != Expected(listed, {first, second});
      for (const char third : alphabet) {
        wrong += TypeOfExtension({first, second, third}) != Expected(listed, {first, second, third});
      }
    }
  }
  EXPECT_EQ(0, wrong);
}

TEST(FileTypeTable, TakesNothingThatIsOneByteOffAListedExtension) {
  const auto listed = ListedTypes();
  for (const auto& [extension, type] : listed) {
    for (const std::string& near : {extension + "q", "q" + extension, extension + " ", extension + std::string(1, '\0'),
                                    extension.substr(0, extension.size() / 2), extension + extension}) {
      EXPECT_EQ(Expected(listed, near), TypeOfExtension(near)) << "." << near;
    }
  }
}

TEST(FileTypeTable, KeepsTheOddKeys) {
  for (const char* extension : {"!!!", "$00", "$01", "$02", "$04", "$05", "$o1", "$ol", "lo_", "q&a", "tx?", "_me", "7",
                                "1", "prc", "key", "numbers"}) {
    EXPECT_EQ(FILE_TYPE_DOCUMENT, TypeOfExtension(extension)) << extension;
  }
  for (const char* extension : {"ts", "dat", "mts", "dvr-ms", "iso"}) {
    EXPECT_EQ(FILE_TYPE_VIDEO, TypeOfExtension(extension)) << extension;
  }
  EXPECT_EQ(FILE_TYPE_AUDIO, TypeOfExtension("ra"));
}

struct Sample {
  const char* path;
  FileType type;
};

class FileTypeOfPath : public testing::TestWithParam<Sample> {};

TEST_P(FileTypeOfPath, IsThatOfItsNamesExtension) {
  EXPECT_EQ(GetParam().type, GetFileTypeByFullPath(GetParam().path)) << GetParam().path;
}

INSTANTIATE_TEST_SUITE_P(
    Samples, FileTypeOfPath,
    testing::Values(Sample{"/volume1/docs/README", FILE_TYPE_DOCUMENT}, Sample{"README", FILE_TYPE_DOCUMENT},
                    Sample{"/v/photo.JPG", FILE_TYPE_PHOTO}, Sample{"/v/clip.Mp4", FILE_TYPE_VIDEO},
                    Sample{"/v/a.tar.gz", FILE_TYPE_DOCUMENT}, Sample{"/v/name.", FILE_TYPE_DOCUMENT},
                    Sample{"/v/image.heic", FILE_TYPE_OTHER}, Sample{"/v/movie.webm", FILE_TYPE_OTHER},
                    Sample{"/v/x.mp3", FILE_TYPE_AUDIO}, Sample{"/v/x.mp3/", FILE_TYPE_DOCUMENT},
                    Sample{"/v/x.mp3/README", FILE_TYPE_DOCUMENT}, Sample{"/v/.git", FILE_TYPE_OTHER},
                    Sample{"/v/.mp3", FILE_TYPE_AUDIO}, Sample{"/v/a.mp3.jpg", FILE_TYPE_PHOTO},
                    Sample{"/v/a.mp3 ", FILE_TYPE_OTHER}, Sample{"", FILE_TYPE_DOCUMENT},
                    Sample{".", FILE_TYPE_DOCUMENT}, Sample{"/", FILE_TYPE_DOCUMENT},
                    Sample{"/v/a.EMULECOLLECTION", FILE_TYPE_DOCUMENT},
                    Sample{"/v/a.an-extension-that-is-longer-than-any", FILE_TYPE_OTHER},
                    Sample{"/v/a.\xc3\x84", FILE_TYPE_OTHER}, Sample{"/v/a.\xff", FILE_TYPE_OTHER}));

TEST(FileTypeOfDirectory, IsThatOfItsName) {
  const orbisk::test::TempDir folder;
  orbisk::test::WriteFile(folder / "x.jpg", "no picture at all");
  EXPECT_EQ(FILE_TYPE_PHOTO, GetFileTypeByFullPath(folder / "x.jpg"));
  EXPECT_EQ(FILE_TYPE_AUDIO, GetFileTypeByFullPath(folder / "a folder that does not exist.mp3"));
}

}  // namespace
}  // namespace orbisk::fileindex::test
