// Mail by GMime: who wrote to whom, the words, and the names of what is attached.
#include <gmime/gmime.h>

#include <memory>
#include <mutex>

#include "services/extractor/formats/html_parser.h"
#include "services/extractor/formats/limits.h"
#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

struct Unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using Ref = std::unique_ptr<T, Unref>;

std::string_view View(const char* text) {
  return text != nullptr ? std::string_view(text) : std::string_view();
}

/// Names go to one field and addresses to the other; a mailbox without a name is known by its address.
void WriteAddresses(Fields& fields, InternetAddressList* list, const char* name_field, const char* address_field) {
  const int count = list != nullptr ? internet_address_list_length(list) : 0;
  for (int i = 0; i < count && i < kMaxMailParts; ++i) {
    InternetAddress* address = internet_address_list_get_address(list, i);
    const std::string_view name = View(internet_address_get_name(address));
    if (!INTERNET_ADDRESS_IS_MAILBOX(address)) {
      fields.AddLine(name_field, name);
      continue;
    }
    const std::string_view box = View(internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(address)));
    fields.AddLine(name_field, name.empty() ? box : name);
    fields.AddLine(address_field, box);
  }
}

void WriteHeaders(GMimeMessage* message, Fields& fields) {
  fields.Text(names::kMDTitle, View(g_mime_message_get_subject(message)));
  fields.Text(names::kMDSubject, View(g_mime_message_get_subject(message)));
  fields.Text(names::kMDIdentifier, View(g_mime_message_get_message_id(message)));
  WriteAddresses(fields, g_mime_message_get_from(message), names::kMDAuthors, names::kMDAuthorAddresses);
  for (InternetAddressList* list :
       {g_mime_message_get_to(message), g_mime_message_get_cc(message), g_mime_message_get_bcc(message)}) {
    WriteAddresses(fields, list, names::kMDRecipients, names::kMDRecipientAddresses);
  }
  if (GDateTime* date = g_mime_message_get_date(message)) {
    fields.Integer(names::kMDContentCreationDate, g_date_time_to_unix(date));
  }
}

class BodyReader {
 public:
  explicit BodyReader(TextSink& text) : text_(text) {}

  void Read(GMimeObject* part, int depth) {
    if (part == nullptr || text_.full()) {
      return;
    }
    if (depth > kMaxMailDepth || ++parts_ > kMaxMailParts) {
      text_.MarkCut();
      return;
    }
    if (GMIME_IS_MULTIPART(part)) {
      ReadMultipart(GMIME_MULTIPART(part), depth);
    } else if (GMIME_IS_MESSAGE_PART(part)) {
      ReadMessage(g_mime_message_part_get_message(GMIME_MESSAGE_PART(part)), depth);
    } else if (GMIME_IS_PART(part)) {
      ReadPart(GMIME_PART(part));
    }
  }

 private:
  void ReadMultipart(GMimeMultipart* multipart, int depth) {
    const int count = g_mime_multipart_get_count(multipart);
    if (GMimeObject* chosen = PlainAlternative(multipart, count)) {
      Read(chosen, depth + 1);
      return;
    }
    for (int i = 0; i < count; ++i) {
      Read(g_mime_multipart_get_part(multipart, i), depth + 1);
    }
  }

  /// Alternatives say the same in several forms: the plain one, if there is one, is enough.
  static GMimeObject* PlainAlternative(GMimeMultipart* multipart, int count) {
    if (g_mime_content_type_is_type(g_mime_object_get_content_type(GMIME_OBJECT(multipart)), "multipart",
                                    "alternative") == FALSE) {
      return nullptr;
    }
    for (int i = 0; i < count; ++i) {
      GMimeObject* part = g_mime_multipart_get_part(multipart, i);
      if (g_mime_content_type_is_type(g_mime_object_get_content_type(part), "text", "plain") != FALSE) {
        return part;
      }
    }
    return nullptr;
  }

  void ReadMessage(GMimeMessage* message, int depth) {
    if (message == nullptr) {
      return;
    }
    text_.Line(View(g_mime_message_get_subject(message)));
    Read(g_mime_message_get_mime_part(message), depth + 1);
  }

  void ReadPart(GMimePart* part) {
    text_.Line(View(g_mime_part_get_filename(part)));
    if (!GMIME_IS_TEXT_PART(part) || g_mime_part_is_attachment(part) != FALSE) {
      return;
    }
    const std::unique_ptr<char, decltype(&g_free)> words(g_mime_text_part_get_text(GMIME_TEXT_PART(part)), g_free);
    std::string_view text = View(words.get());
    if (g_mime_content_type_is_type(g_mime_object_get_content_type(GMIME_OBJECT(part)), "text", "html") == FALSE) {
      text_.Append(text);
    } else {
      ReadHtmlText(text.substr(0, kMaxMailHtmlBytes), text_, nullptr);
    }
    text_.Break();
  }

  TextSink& text_;
  int parts_ = 0;
};

}  // namespace

void PrepareMail() {
  static std::once_flag once;
  std::call_once(once, g_mime_init);
}

void ReadMail(Reading& reading) {
  const Ref<GMimeStream> stream(
      g_mime_stream_fs_new_with_bounds(reading.input.fd(), 0, static_cast<gint64>(reading.input.size())));
  g_mime_stream_fs_set_owner(GMIME_STREAM_FS(stream.get()), FALSE);
  const Ref<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
  // Parts stay in the file and are read when they are asked for.
  g_mime_parser_set_persist_stream(parser.get(), TRUE);
  const Ref<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
  if (!message) {
    throw BrokenContent("broken mail");
  }
  WriteHeaders(message.get(), reading.fields);
  BodyReader(reading.text).Read(g_mime_message_get_mime_part(message.get()), 0);
}

}  // namespace extractor
