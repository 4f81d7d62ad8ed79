// The fake platform's smaller services.
#include "tests/support/fake_box.h"

#include <strings.h>

#include <cstdarg>
#include <cstring>

namespace orbisk::test {
namespace {

int Store(const std::string& text, char* buffer, size_t bytes) {
  if (text.size() >= bytes) {
    return FailPlatform(ENAMETOOLONG);
  }
  memcpy(buffer, text.c_str(), text.size() + 1);
  return 0;
}

std::string Below(const std::string& share_path, const std::string& name) {
  const size_t slash = share_path.rfind('/');
  return share_path.substr(0, slash) + "/@fileindex" + share_path.substr(slash) + "/" + name;
}

}  // namespace

FakeIndexLocations& FakeIndexLocation() {
  static auto* const locations = new FakeIndexLocations{
      .queue_path{"FILEIDXQueuePathCompose",
                  [](const char* share_path, char* buffer, size_t bytes) {
                    return Store(Below(share_path, "queue"), buffer, bytes);
                  }},
      .db_path{"FILEIDXDBPathCompose", [](const char* share_path, char* buffer,
                                          size_t bytes) { return Store(Below(share_path, "db"), buffer, bytes); }},
      .index_id{"FILEIDXGetIndexID", [](const char* name, char* buffer, size_t bytes) {
                  return Store(std::string("fileindex_") + name, buffer, bytes);
                }}};
  return *locations;
}

FakeFunction<int(int, const char*, unsigned long long)>& FakeQuota() {
  // A failing question answers 0, as a shortage does.
  static auto* const is_enough = new FakeFunction<int(int, const char*, unsigned long long)>(
      "NIMOQuotaIsEnough", [](int, const char*, unsigned long long) { return 1; },
      [](int, const char*, unsigned long long) { return 0; });
  return *is_enough;
}

FakeFunction<int(const char*, const char*)>& FakeCaseCompare() {
  static auto* const compare = new FakeFunction<int(const char*, const char*)>(
      "NLIBCUnicodeUTF8StrCaseCmp",
      [](const char* a, const char* b) { return strcasecmp(a != nullptr ? a : "", b != nullptr ? b : ""); });
  return *compare;
}

std::string ArgumentText<std::vector<std::string>>::Of(const std::vector<std::string>& arguments) {
  std::string text;
  for (const std::string& argument : arguments) {
    text += (text.empty() ? "" : "|") + argument;
  }
  return text;
}

FakeProcesses& FakeProcess() {
  static auto* const processes = new FakeProcesses{
      .execl{"NLIBCExecl", [](const std::string&, unsigned, const std::vector<std::string>&) { return 0; }}};
  return *processes;
}

}  // namespace orbisk::test

int FILEIDXQueuePathCompose(const char* share_path, char* buffer, size_t bytes) {
  return orbisk::test::FakeIndexLocation().queue_path(share_path, buffer, bytes);
}

int FILEIDXDBPathCompose(const char* share_path, char* buffer, size_t bytes) {
  return orbisk::test::FakeIndexLocation().db_path(share_path, buffer, bytes);
}

int FILEIDXGetIndexID(const char* share_name, char* buffer, size_t bytes) {
  return orbisk::test::FakeIndexLocation().index_id(share_name, buffer, bytes);
}

int NIMOQuotaIsEnough(int reserved, const char* path, unsigned long long bytes) {
  return orbisk::test::FakeQuota()(reserved, path, bytes);
}

int NLIBCUnicodeUTF8StrCaseCmp(const char* a, const char* b) {
  return orbisk::test::FakeCaseCompare()(a, b);
}

int NLIBCExecl(const char* program, unsigned flags, ...) {
  std::vector<std::string> arguments;
  va_list list;
  va_start(list, flags);
  for (const char* argument = va_arg(list, const char*); argument != nullptr; argument = va_arg(list, const char*)) {
    arguments.emplace_back(argument);
  }
  va_end(list);
  return orbisk::test::FakeProcess().execl(program, flags, arguments);
}
