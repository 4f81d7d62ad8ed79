// What arguments have to look like.
#include "tools/fileindexctl/arguments.h"

#include <charconv>
#include <vector>

namespace fileindexctl {
namespace {

std::string NumberFault(const std::string& text) {
  unsigned long number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  const bool has_leading_zero = text.size() > 1 && text.front() == '0';
  return result.ec == std::errc() && result.ptr == end && !has_leading_zero ? "" : "not a number from 0: " + text;
}

std::string PathFault(const char* kind, const std::string& text) {
  const std::string ended = text + "/";
  const bool is_plain = text.size() > 1 && text.front() == '/' && ended.find("//") == std::string::npos &&
                        ended.find("/./") == std::string::npos && ended.find("/../") == std::string::npos;
  return is_plain ? "" : std::string("not a plain ") + kind + " path: " + text;
}

}  // namespace

CLI::Validator PlainNumber() {
  return {[](std::string& text) { return NumberFault(text); }, "", "PlainNumber"};
}

CLI::Validator PlainFullPath() {
  return {[](std::string& text) { return PathFault("full", text); }, "", "PlainFullPath"};
}

CLI::Validator PlainSharePath() {
  return {[](std::string& text) { return PathFault("share", text); }, "", "PlainSharePath"};
}

std::string UnknownCommand(const CLI::App& app) {
  const std::vector<std::string> words = app.remaining(true);
  return words.empty() || words.front().front() == '-' ? "" : words.front();
}

}  // namespace fileindexctl
