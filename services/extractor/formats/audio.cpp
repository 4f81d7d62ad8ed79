// Sound by TagLib: tags and the properties of the stream.
#include <taglib/fileref.h>
#include <taglib/flacproperties.h>
#include <taglib/tag.h>
#include <taglib/tiostream.h>
#include <taglib/tpropertymap.h>
#include <taglib/wavproperties.h>

#include <algorithm>

#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

/// Positioned reads of the file; nothing is written.
class Stream : public TagLib::IOStream {
 public:
  explicit Stream(const Input& input) : input_(input) {}

  // Without a name TagLib tells the format by the content.
  TagLib::FileName name() const override { return ""; }
  TagLib::ByteVector readBlock(unsigned long length) override {
    if (offset_ < 0 || static_cast<std::uint64_t>(offset_) >= input_.size()) {
      return {};
    }
    // A broken size must not become an allocation: no block is longer than the rest of the file.
    const std::uint64_t rest = input_.size() - static_cast<std::uint64_t>(offset_);
    TagLib::ByteVector block(static_cast<unsigned int>(std::min<std::uint64_t>({length, rest, kMaxBlockBytes})));
    const std::size_t count = input_.ReadAt(static_cast<std::uint64_t>(offset_), block.data(), block.size());
    block.resize(static_cast<unsigned int>(count));
    offset_ += static_cast<long>(count);
    return block;
  }
  void writeBlock(const TagLib::ByteVector&) override {}
  void insert(const TagLib::ByteVector&, unsigned long, unsigned long) override {}
  void removeBlock(unsigned long, unsigned long) override {}
  bool readOnly() const override { return true; }
  bool isOpen() const override { return true; }
  void seek(long offset, Position from) override {
    const long base = from == Beginning ? 0 : from == Current ? offset_ : static_cast<long>(input_.size());
    long target = 0;
    if (!__builtin_add_overflow(base, offset, &target)) {
      offset_ = target;
    }
  }
  long tell() const override { return offset_; }
  long length() override { return static_cast<long>(input_.size()); }
  void truncate(long) override {}

 private:
  // Covers of albums are the largest thing in a tag.
  static constexpr std::uint64_t kMaxBlockBytes = std::uint64_t{64} << 20;

  const Input& input_;
  long offset_ = 0;
};

std::string Utf8Of(const TagLib::String& text) {
  return text.to8Bit(true);
}

/// The values of one property; a map of TagLib must not be indexed with a key that it has not.
TagLib::StringList ValuesOf(const TagLib::PropertyMap& properties, const char* key) {
  const auto found = properties.find(key);
  return found == properties.end() ? TagLib::StringList() : found->second;
}

void WriteProperties(const TagLib::PropertyMap& properties, Fields& fields) {
  static constexpr struct {
    const char* key;
    const char* field;
  } kLists[] = {{"TITLE", names::kMDTitle},
                {"ALBUM", names::kMDAlbum},
                {"COMMENT", names::kMDComment},
                {"ARTIST", names::kMDAuthors},
                {"ALBUMARTIST", names::kMDContributors},
                {"COMPOSER", names::kMDComposer},
                {"LYRICIST", names::kMDLyricist},
                {"GENRE", names::kMDMusicalGenre},
                {"COPYRIGHT", names::kMDCopyright},
                {"LABEL", names::kMDPublishers},
                {"ENCODING", names::kMDAudioEncodingApplication},
                {"LANGUAGE", names::kMDLanguages},
                {"INITIALKEY", names::kMDKeySignature}};
  for (const auto& row : kLists) {
    for (const TagLib::String& value : ValuesOf(properties, row.key)) {
      fields.AddLine(row.field, Utf8Of(value));
    }
  }
  static constexpr struct {
    const char* key;
    const char* field;
  } kNumbers[] = {
      {"BPM", names::kMDTempo}, {"TRACKNUMBER", names::kMDAudioTrackNumber}, {"DATE", names::kMDRecordingYear}};
  for (const auto& row : kNumbers) {
    for (const TagLib::String& value : ValuesOf(properties, row.key)) {
      fields.IntegerText(row.field, Utf8Of(value));
    }
  }
  for (const TagLib::String& value : ValuesOf(properties, "DATE")) {
    fields.Date(names::kMDRecodingDate, Utf8Of(value));
  }
}

/// What every format's tag has; for those whose properties name it otherwise.
void WriteTag(const TagLib::Tag& tag, Fields& fields) {
  fields.TextIfMissing(names::kMDTitle, Utf8Of(tag.title()));
  fields.TextIfMissing(names::kMDAlbum, Utf8Of(tag.album()));
  fields.TextIfMissing(names::kMDComment, Utf8Of(tag.comment()));
  fields.TextIfMissing(names::kMDAuthors, Utf8Of(tag.artist()));
  if (tag.year() > 0) {
    fields.Integer(names::kMDRecordingYear, tag.year());
  }
  if (tag.track() > 0) {
    fields.Integer(names::kMDAudioTrackNumber, tag.track());
  }
}

void WriteStream(const TagLib::AudioProperties& properties, Fields& fields) {
  fields.Fraction(names::kMDDurationSecond, properties.lengthInMilliseconds() / 1000.0);
  // TagLib counts thousands of bits.
  fields.Integer(names::kMDAudioBitRate, std::int64_t{properties.bitrate()} * 1000);
  fields.Integer(names::kMDAudioSampleRate, properties.sampleRate());
  fields.Integer(names::kMDAudioChannelCount, properties.channels());
  fields.Text(names::kMDMediaTypes, "Audio");
  if (const auto* flac = dynamic_cast<const TagLib::FLAC::Properties*>(&properties)) {
    fields.Integer(names::kMDBitsPerSample, flac->bitsPerSample());
  } else if (const auto* wav = dynamic_cast<const TagLib::RIFF::WAV::Properties*>(&properties)) {
    fields.Integer(names::kMDBitsPerSample, wav->bitsPerSample());
  }
}

}  // namespace

void ReadAudio(Reading& reading) {
  Stream stream(reading.input);
  const TagLib::FileRef file(&stream);
  if (file.isNull() || !file.file()->isValid()) {
    throw BrokenContent("broken " + reading.media_type);
  }
  const TagLib::PropertyMap properties = file.file()->properties();
  WriteProperties(properties, reading.fields);
  if (file.tag() != nullptr) {
    WriteTag(*file.tag(), reading.fields);
  }
  if (file.audioProperties() != nullptr) {
    WriteStream(*file.audioProperties(), reading.fields);
  }
  // Words that are sung are words.
  for (const TagLib::String& lyrics : ValuesOf(properties, "LYRICS")) {
    reading.text.Line(Utf8Of(lyrics));
  }
}

}  // namespace extractor
