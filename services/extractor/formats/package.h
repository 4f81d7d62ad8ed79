// What office documents and books share: a zip whose entries are XML.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "services/extractor/formats/reading.h"
#include "services/extractor/formats/xml_parser.h"

namespace extractor {

/// Takes one entry's bytes as they are inflated; more is not wanted once it returns false.
using EntryTaker = std::function<bool(std::string_view)>;

/// Goes once through the entries of a zip. `choose` says for a path what takes the entry, or null to pass it by;
/// `finish` is called when the entry that was taken has ended. Throws BrokenContent.
void ReadPackage(const Input& input, const std::function<EntryTaker(const std::string& path)>& choose,
                 const std::function<void()>& finish);

/// What to do with one entry: nothing when there is no handler.
struct XmlEntry {
  std::unique_ptr<XmlHandler> handler;
  bool carries_text = true;  // it is left, or not begun, once the text is full
};

/// Goes once through the entries of a zip and parses those for which `choose` makes a handler. Throws BrokenContent.
void ReadXmlPackage(Reading& reading, const std::function<XmlEntry(const std::string& path)>& choose);

/// Gathers the character data of leaf elements and calls `leaf` at each end; for property files.
class LeafReader : public XmlHandler {
 public:
  using Leaf = std::function<void(std::string_view name, const std::string& value)>;
  explicit LeafReader(Leaf leaf) : leaf_(std::move(leaf)) {}

  void Start(std::string_view name, const Attributes& attributes) override;
  void End(std::string_view name) override;
  void Characters(std::string_view text) override;

 protected:
  /// For formats that keep values in attributes too.
  virtual void OnAttributes(std::string_view, const Attributes&) {}

 private:
  Leaf leaf_;
  std::string value_;
};

/// Writes a Dublin Core element, as office documents and books use it, to its field. False when `name` is none.
bool WriteDublinCore(Fields& fields, std::string_view name, const std::string& value);

/// `path` is in `folder` ("word/") and ends in `suffix`, its last part beginning with `stem`.
bool IsEntry(std::string_view path, std::string_view folder, std::string_view stem, std::string_view suffix);

}  // namespace extractor
