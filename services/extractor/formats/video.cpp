// Films by libmediainfo: what streams they hold, how long they are, what their tags say.
#include <MediaInfo/MediaInfo.h>
#include <ZenLib/Ztring.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <vector>

#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

using MediaInfoLib::MediaInfo;
using MediaInfoLib::stream_t;

constexpr std::size_t kBlockBytes = std::size_t{256} << 10;
// A container whose parts point at one another must not be followed for ever.
constexpr int kMaxSeeks = 1'000;
constexpr std::uint64_t kMaxBytesRead = std::uint64_t{256} << 20;
// What Open_Buffer_Continue_GoTo_Get answers when it wants what follows.
constexpr std::uint64_t kGoOn = static_cast<std::uint64_t>(-1);
// Bits of Open_Buffer_Continue's answer.
constexpr std::size_t kFinished = 8;

ZenLib::Ztring Wide(const char* text) {
  return ZenLib::Ztring().From_UTF8(text);
}

std::string Get(MediaInfo& media, stream_t kind, const char* parameter) {
  return ZenLib::Ztring(media.Get(kind, 0, Wide(parameter).c_str())).To_UTF8();
}

void Feed(MediaInfo& media, const Input& input) {
  std::vector<char> buffer(kBlockBytes);
  media.Open_Buffer_Init(input.size(), 0);
  std::uint64_t offset = 0;
  std::uint64_t total = 0;
  int seeks = 0;
  while (total < kMaxBytesRead) {
    const std::size_t count = input.ReadAt(offset, buffer.data(), buffer.size());
    if (count == 0) {
      break;
    }
    offset += count;
    total += count;
    const std::size_t state = media.Open_Buffer_Continue(reinterpret_cast<const ZenLib::int8u*>(buffer.data()), count);
    if ((state & kFinished) != 0) {
      break;
    }
    const std::uint64_t wanted = media.Open_Buffer_Continue_GoTo_Get();
    if (wanted != kGoOn) {
      if (++seeks > kMaxSeeks) {
        break;
      }
      offset = wanted;
      media.Open_Buffer_Init(input.size(), offset);
    }
  }
  media.Open_Buffer_Finalize();
}

void WriteTags(MediaInfo& media, Fields& fields) {
  static constexpr struct {
    const char* parameter;
    const char* field;
  } kRows[] = {{"Title", names::kMDTitle},          {"Performer", names::kMDAuthors},
               {"Director", names::kMDAuthors},     {"Album", names::kMDAlbum},
               {"Composer", names::kMDComposer},    {"Genre", names::kMDMusicalGenre},
               {"Comment", names::kMDComment},      {"Description", names::kMDDescription},
               {"Keywords", names::kMDKeywords},    {"Copyright", names::kMDCopyright},
               {"Publisher", names::kMDPublishers}, {"Encoded_Application", names::kMDEncodingApplications}};
  for (const auto& row : kRows) {
    fields.AddLine(row.field, Get(media, MediaInfoLib::Stream_General, row.parameter));
  }
  std::string date = Get(media, MediaInfoLib::Stream_General, "Encoded_Date");
  // "UTC 2024-01-02 03:04:05" or, in newer versions, with the zone behind.
  fields.Date(names::kMDContentCreationDate, date.starts_with("UTC ") ? date.substr(4) : date);
}

void WriteStreams(MediaInfo& media, Fields& fields) {
  using MediaInfoLib::Stream_Audio;
  using MediaInfoLib::Stream_General;
  using MediaInfoLib::Stream_Video;
  const std::string duration = Get(media, Stream_General, "Duration");
  if (!duration.empty()) {
    fields.Fraction(names::kMDDurationSecond, std::strtod(duration.c_str(), nullptr) / 1000.0);
  }
  fields.IntegerText(names::kMDTotalBitRate, Get(media, Stream_General, "OverallBitRate"));
  fields.IntegerText(names::kMDPixelWidth, Get(media, Stream_Video, "Width"));
  fields.IntegerText(names::kMDPixelHeight, Get(media, Stream_Video, "Height"));
  fields.IntegerText(names::kMDVideoBitRate, Get(media, Stream_Video, "BitRate"));
  fields.IntegerText(names::kMDAudioBitRate, Get(media, Stream_Audio, "BitRate"));
  fields.IntegerText(names::kMDAudioSampleRate, Get(media, Stream_Audio, "SamplingRate"));
  fields.IntegerText(names::kMDAudioChannelCount, Get(media, Stream_Audio, "Channel(s)"));
  for (const auto& [kind, name] : {std::pair{Stream_Video, "Video"}, std::pair{Stream_Audio, "Audio"}}) {
    if (media.Count_Get(kind) > 0) {
      fields.AddLine(names::kMDMediaTypes, name);
      fields.AddLine(names::kMDCodecs, Get(media, kind, "Format"));
    }
  }
}

/// Of these it is certain that libmediainfo reads them, so that finding nothing means that there is a fault.
bool IsKnownContainer(const std::string& media_type) {
  static constexpr std::string_view kTypes[] = {
      "video/mp4",  "video/quicktime", "video/x-m4v",    "video/3gpp", "video/x-matroska",
      "video/webm", "video/x-msvideo", "video/x-ms-asf", "video/mpeg", "video/ogg"};
  return std::find(std::begin(kTypes), std::end(kTypes), media_type) != std::end(kTypes);
}

}  // namespace

void PrepareVideo() {
  // Builds its tables of names; the content does not matter.
  MediaInfo media;
  media.Option(Wide("Language").c_str(), Wide("raw").c_str());
  media.Open_Buffer_Init(4, 0);
  const ZenLib::int8u bytes[4] = {};
  media.Open_Buffer_Continue(bytes, sizeof(bytes));
  media.Open_Buffer_Finalize();
}

void ReadVideo(Reading& reading) {
  MediaInfo media;
  Feed(media, reading.input);
  const bool has_video = media.Count_Get(MediaInfoLib::Stream_Video) > 0;
  const bool has_audio = media.Count_Get(MediaInfoLib::Stream_Audio) > 0;
  if (!has_video && !has_audio) {
    if (IsKnownContainer(reading.media_type)) {
      throw BrokenContent("broken " + reading.media_type);
    }
    return;
  }
  // Containers of films hold sound alone too, whose tags TagLib knows better.
  if (!has_video && IsKnownContainer(reading.media_type)) {
    try {
      ReadAudio(reading);
      return;
    } catch (const BrokenContent&) {
      // None of TagLib's kinds.
    }
  }
  WriteTags(media, reading.fields);
  WriteStreams(media, reading.fields);
}

}  // namespace extractor
