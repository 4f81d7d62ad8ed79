// Keeps text valid and bounded.
#include "services/extractor/formats/text_sink.h"

#include <utility>

#include "services/extractor/formats/plain_bytes.h"

namespace extractor {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

enum class Sequence { kValid, kInvalid, kIncomplete };

struct Decoded {
  Sequence state;
  std::size_t length;  // bytes of the sequence, or how many of them to replace
};

bool IsContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// The bounds of the second byte exclude overlong forms, surrogates and what lies beyond U+10FFFF.
bool SecondByteFits(unsigned char first, unsigned char second) {
  switch (first) {
    case 0xE0:
      return second >= 0xA0 && second <= 0xBF;
    case 0xED:
      return second >= 0x80 && second <= 0x9F;
    case 0xF0:
      return second >= 0x90 && second <= 0xBF;
    case 0xF4:
      return second >= 0x80 && second <= 0x8F;
    default:
      return second >= 0x80 && second <= 0xBF;
  }
}

Decoded DecodeAt(std::string_view bytes, std::size_t at) {
  const auto first = static_cast<unsigned char>(bytes[at]);
  std::size_t length = 0;
  if (first >= 0xC2 && first <= 0xDF) {
    length = 2;
  } else if (first >= 0xE0 && first <= 0xEF) {
    length = 3;
  } else if (first >= 0xF0 && first <= 0xF4) {
    length = 4;
  } else {
    return {Sequence::kInvalid, 1};
  }
  for (std::size_t i = 1; i < length; ++i) {
    if (at + i >= bytes.size()) {
      return {Sequence::kIncomplete, i};
    }
    const char byte = bytes[at + i];
    if (!IsContinuation(byte) || (i == 1 && !SecondByteFits(first, static_cast<unsigned char>(byte)))) {
      return {Sequence::kInvalid, i};
    }
  }
  return {Sequence::kValid, length};
}

bool IsPlain(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return (byte >= 0x20 && byte < 0x7F) || c == '\n' || c == '\t';
}

/// Hands the valid pieces of `bytes` to `store`; returns how many bytes at the end are the begin of a character.
template <typename Store>
std::size_t ForEachValid(std::string_view bytes, Store store) {
  std::size_t run = 0;  // begin of what needs no change
  std::size_t at = 0;
  const auto flush = [&] {
    if (at > run) {
      store(bytes.substr(run, at - run));
    }
  };
  while ((at += PlainRun(bytes, at)) < bytes.size()) {
    const char c = bytes[at];
    if (IsPlain(c)) {
      ++at;
      continue;
    }
    if (static_cast<unsigned char>(c) < 0x80) {
      flush();
      // A carriage return of a line's end is dropped, with or without a newline behind it in this piece.
      store(c == '\r' || c == '\f' || c == '\v' ? (at + 1 < bytes.size() && bytes[at + 1] == '\n' ? "" : "\n") : " ");
      run = ++at;
      continue;
    }
    const Decoded decoded = DecodeAt(bytes, at);
    if (decoded.state == Sequence::kValid) {
      at += decoded.length;
      continue;
    }
    flush();
    if (decoded.state == Sequence::kIncomplete) {
      return decoded.length;
    }
    store(kReplacement);
    at += decoded.length;
    run = at;
  }
  flush();
  return 0;
}

bool IsSpace(char c) {
  return c == ' ' || c == '\n' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}

}  // namespace

Utf8Prefix ValidUtf8Prefix(std::string_view bytes) {
  std::size_t at = 0;
  while ((at += PlainRun(bytes, at)) < bytes.size()) {
    if (static_cast<unsigned char>(bytes[at]) < 0x80) {
      ++at;
      continue;
    }
    const Decoded decoded = DecodeAt(bytes, at);
    if (decoded.state != Sequence::kValid) {
      return {at, decoded.state == Sequence::kIncomplete};
    }
    at += decoded.length;
  }
  return {bytes.size(), false};
}

std::string CleanUtf8(std::string_view bytes) {
  std::string clean;
  if (ForEachValid(bytes, [&](std::string_view piece) { clean += piece; }) > 0) {
    clean += kReplacement;
  }
  return clean;
}

void TextSink::Store(std::string_view valid) {
  if (full_) {
    cut_ = cut_ || !valid.empty();
    return;
  }
  const std::size_t room = limit_ - text_.size();
  if (valid.size() > room) {
    std::size_t edge = room;
    while (edge > 0 && IsContinuation(valid[edge])) {
      --edge;
    }
    valid = valid.substr(0, edge);
    full_ = cut_ = true;
  }
  text_ += valid;
}

void TextSink::AppendWhole(std::string_view bytes) {
  const std::size_t left = ForEachValid(bytes, [this](std::string_view piece) { Store(piece); });
  split_.assign(bytes.substr(bytes.size() - left));
}

void TextSink::Append(std::string_view bytes) {
  if (bytes.empty()) {
    return;
  }
  if (split_.empty()) {
    AppendWhole(bytes);
    return;
  }
  const std::string joined = split_ + std::string(bytes);
  split_.clear();
  AppendWhole(joined);
}

void TextSink::AppendFlowing(std::string_view bytes) {
  std::size_t at = 0;
  while (at < bytes.size() && !full_) {
    std::size_t word = at;
    while (word < bytes.size() && IsSpace(bytes[word])) {
      ++word;
    }
    space_ = space_ || word > at;
    // Words with one blank between them are as they shall be.
    std::size_t end = word;
    while (end < bytes.size() &&
           (!IsSpace(bytes[end]) || (bytes[end] == ' ' && end + 1 < bytes.size() && !IsSpace(bytes[end + 1])))) {
      ++end;
    }
    if (end > word) {
      if (space_ && !text_.empty() && !IsSpace(text_.back()) && text_.size() < limit_) {
        Append(" ");
      }
      space_ = false;
      Append(bytes.substr(word, end - word));
    }
    at = end;
  }
  if (full_ && at < bytes.size()) {
    cut_ = true;
  }
}

void TextSink::Break() {
  if (!split_.empty()) {
    split_.clear();
    Store(kReplacement);
  }
  space_ = false;
  if (!text_.empty() && text_.back() != '\n' && text_.size() < limit_) {
    Store("\n");
  }
}

void TextSink::Line(std::string_view line) {
  Break();
  Append(line);
  Break();
}

std::string TextSink::Take() {
  if (!split_.empty()) {
    split_.clear();
    Store(kReplacement);
  }
  while (!text_.empty() && IsSpace(text_.back())) {
    text_.pop_back();
  }
  return std::move(text_);
}

}  // namespace extractor
