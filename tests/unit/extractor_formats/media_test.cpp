// Sound, films and pictures.
#include <gtest/gtest.h>

#include "tests/unit/extractor_formats/extraction.h"

namespace orbisk::test {
namespace {

TEST(Sound, OfEveryKindGivesItsTags) {
  for (const char* name :
       {"sound.mp3", "sound.m4a", "sound.flac", "sound.ogg", "sound.wma", "sound.wav", "sound.aiff"}) {
    const Extraction extraction = Extract(Sample(name), "");

    EXPECT_EQ(extraction.error, "") << name;
    EXPECT_EQ(extraction["NIMOMDTitle"], "Morning Heron") << name;
    EXPECT_EQ(extraction["NIMOMDAuthors"], "Ada Quill") << name;
    EXPECT_EQ(extraction["NIMOMDAlbum"], "Reed Songs") << name;
    EXPECT_EQ(extraction["NIMOMDMusicalGenre"], "Folk") << name;
    EXPECT_EQ(extraction.document["NIMOMDAudioTrackNumber"].asInt(), 3) << name;
    EXPECT_EQ(extraction["NIMOMDMediaTypes"], "Audio") << name;
  }
}

TEST(Sound, OfMostKindsGivesItsYear) {
  for (const char* name : {"sound.mp3", "sound.m4a", "sound.flac", "sound.ogg", "sound.wav", "sound.aiff"}) {
    EXPECT_EQ(Extract(Sample(name)).document["NIMOMDRecordingYear"].asInt(), 2021) << name;
  }
}

TEST(Sound, GivesThePropertiesOfItsStream) {
  const Extraction flac = Extract(Sample("sound.flac"));
  const Extraction wav = Extract(Sample("sound.wav"));

  EXPECT_EQ(flac.document["NIMOMDDurationSecond"].asDouble(), 1.0);
  EXPECT_EQ(flac.document["NIMOMDAudioSampleRate"].asInt(), 44100);
  EXPECT_EQ(flac.document["NIMOMDAudioChannelCount"].asInt(), 2);
  EXPECT_EQ(flac.document["NIMOMDBitsPerSample"].asInt(), 16);
  EXPECT_EQ(wav.document["NIMOMDAudioBitRate"].asInt(), 128'000);
  EXPECT_EQ(wav.document["NIMOMDDurationSecond"].asDouble(), 0.5);
}

TEST(Sound, IsKnownByItsContentWhateverItsName) {
  const Extraction extraction = Extract(Sample("sound.flac"), "heron.mp3");

  EXPECT_EQ(extraction.error, "");
  EXPECT_EQ(extraction["NIMOMDTitle"], "Morning Heron");
}

TEST(Film, OfAKindThatNothingReadsIsNotBroken) {
  const Extraction extraction = Extract("\x8AMNG\r\n\x1A\n" + std::string(64, '\x01'), "a.mng");

  EXPECT_EQ(extraction.error, "");
  EXPECT_EQ(extraction["NIMOMDContentType"], "video/x-mng");
}

TEST(Sound, CutToItsFirstBytesIsBroken) {
  for (const char* name : {"sound.flac", "sound.wma", "film.mp4", "film.avi"}) {
    EXPECT_NE(Extract(Sample(name).substr(0, 40), name).error, "") << name;
  }
}

TEST(Film, OfEveryKindGivesTitleLengthAndStreams) {
  for (const char* name : {"film.mp4", "film.mov", "film.mkv", "film.avi"}) {
    const Extraction extraction = Extract(Sample(name), "");

    EXPECT_EQ(extraction.error, "") << name;
    EXPECT_EQ(extraction["NIMOMDTitle"], "Heron Film") << name;
    EXPECT_NEAR(extraction.document["NIMOMDDurationSecond"].asDouble(), 1.0, 0.15) << name;
    EXPECT_EQ(extraction.document["NIMOMDPixelWidth"].asInt(), 64) << name;
    EXPECT_EQ(extraction.document["NIMOMDPixelHeight"].asInt(), 48) << name;
    EXPECT_EQ(extraction.document["NIMOMDAudioSampleRate"].asInt(), 44100) << name;
    EXPECT_EQ(extraction.document["NIMOMDAudioChannelCount"].asInt(), 2) << name;
    EXPECT_EQ(extraction["NIMOMDMediaTypes"], "Video\nAudio") << name;
    EXPECT_NE(extraction["NIMOMDCodecs"], "") << name;
  }
}

TEST(Picture, OfEveryKindGivesWhatTheCameraWrote) {
  for (const char* name : {"photo.jpg", "photo.png", "photo.tiff", "photo.webp", "photo.heic"}) {
    const Extraction extraction = Extract(Sample(name), "");

    EXPECT_EQ(extraction.error, "") << name;
    EXPECT_EQ(extraction["NIMOMDAcquisitionMake"], "Lumen") << name;
    EXPECT_EQ(extraction["NIMOMDAcquisitionModel"], "Field 7") << name;
    EXPECT_EQ(extraction.document["NIMOMDISOSpeed"].asInt(), 200) << name;
    EXPECT_EQ(extraction["NIMOMDExposureTimeString"], "1/250") << name;
    EXPECT_EQ(extraction["NIMOMDAperture"], "F2.8") << name;
    EXPECT_DOUBLE_EQ(extraction.document["NIMOMDFNumber"].asDouble(), 2.8) << name;
    EXPECT_DOUBLE_EQ(extraction.document["NIMOMDFocalLength"].asDouble(), 35.0) << name;
    EXPECT_EQ(extraction.document["NIMOMDResolutionWidthDPI"].asInt(), 300) << name;
    EXPECT_EQ(extraction.document["NIMOMDFlashOnOff"].asInt(), 1) << name;
    EXPECT_EQ(extraction.document["NIMOMDContentCreationDate"].asInt64(), 1651820889) << name;
  }
}

TEST(Picture, OfEveryKindGivesItsXmp) {
  for (const char* name : {"photo.jpg", "photo.png", "photo.tiff", "photo.webp", "photo.heic"}) {
    const Extraction extraction = Extract(Sample(name), "");

    EXPECT_EQ(extraction["NIMOMDTitle"], "Heron at the weir") << name;
    EXPECT_TRUE(extraction["NIMOMDKeywords"].starts_with("heron\nwater")) << name;
    EXPECT_EQ(extraction["NIMOMDStarRating"], "4") << name;
  }
}

TEST(Picture, GivesItsIptcBesideItsXmp) {
  const Extraction extraction = Extract(Sample("photo.jpg"));

  EXPECT_EQ(extraction["NIMOMDCity"], "Lund");
  EXPECT_EQ(extraction["NIMOMDCountry"], "Sweden");
  EXPECT_EQ(extraction["NIMOMDAuthors"], "Ada Quill");
  EXPECT_EQ(extraction["NIMOMDDescription"], "A heron waits");
  EXPECT_EQ(extraction["NIMOMDKeywords"], "heron\nwater\nreeds");
}

TEST(Picture, GivesItsMeasures) {
  for (const char* name : {"photo.jpg", "photo.png", "photo.tiff", "photo.webp"}) {
    const Extraction extraction = Extract(Sample(name));

    EXPECT_EQ(extraction.document["NIMOMDPixelWidth"].asInt(), 64) << name;
    EXPECT_EQ(extraction.document["NIMOMDPixelHeight"].asInt(), 48) << name;
    EXPECT_EQ(extraction.document["NIMOMDPixelCount"].asInt(), 3072) << name;
  }
}

}  // namespace
}  // namespace orbisk::test
