// The fake platform's smaller services.
#include "tests/support/fake_box.h"

#include <locale.h>
#include <wctype.h>

#include <climits>
#include <cstdarg>
#include <cstring>
#include <cwchar>

namespace orbisk::test {
namespace {

int Store(const std::string& text, char* buffer, size_t bytes) {
  if (text.size() >= bytes) {
    return FailPlatform(ENAMETOOLONG);
  }
  memcpy(buffer, text.c_str(), text.size() + 1);
  return 0;
}

int StoreBelow(const char* share_path, const std::string& name, char* buffer, size_t bytes) {
  const std::string path = share_path != nullptr ? share_path : "";
  const size_t slash = path.rfind('/');
  if (path.empty() || path.front() != '/' || slash + 1 == path.size() || buffer == nullptr) {
    return FailPlatform(EINVAL);
  }
  return Store(path.substr(0, slash) + "/@fileindex" + path.substr(slash) + "/" + name, buffer, bytes);
}

int StoreId(const char* share_name, char* buffer, size_t bytes) {
  if (share_name == nullptr || *share_name == '\0' || strchr(share_name, '/') != nullptr || buffer == nullptr) {
    return FailPlatform(EINVAL);
  }
  return Store(std::string("fileindex_") + share_name, buffer, bytes);
}

int HasRoom(int, const char* path, unsigned long long bytes) {
  if (path == nullptr) {
    FailPlatform(EINVAL);
    return 0;
  }
  if (bytes == ULLONG_MAX) {
    FailPlatform(NIMO_ERR_VOLUME_FULL);
    return 0;
  }
  return 1;
}

locale_t Utf8Locale() {
  static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  return locale;
}

// Character by character, by way of the upper case: a letter may have two lower-case forms.
char32_t FoldCharacter(wchar_t character) {
  const wint_t upper = towupper_l(static_cast<wint_t>(character), Utf8Locale());
  return static_cast<char32_t>(towlower_l(upper, Utf8Locale()));
}

std::u32string Fold(const char* text) {
  constexpr char32_t kByteBase = 0x200000;  // above every character: a byte that is none is never taken for one
  std::u32string folded;
  const locale_t before = uselocale(Utf8Locale());
  const char* const end = text + strlen(text);
  while (text != end) {
    wchar_t character = 0;
    mbstate_t state{};
    const auto left = static_cast<size_t>(end - text);
    const size_t used = mbrtowc(&character, text, left, &state);
    folded += used <= left ? FoldCharacter(character) : kByteBase + static_cast<unsigned char>(*text);
    text += used <= left ? used : 1;
  }
  uselocale(before);
  return folded;
}

int CompareFolded(const char* a, const char* b) {
  return Fold(a != nullptr ? a : "").compare(Fold(b != nullptr ? b : ""));
}

}  // namespace

FakeIndexLocations& FakeIndexLocation() {
  static auto* const locations = new FakeIndexLocations{
      .queue_path{"FILEIDXQueuePathCompose",
                  [](const char* share_path, char* buffer, size_t bytes) {
                    return StoreBelow(share_path, "queue", buffer, bytes);
                  }},
      .db_path{"FILEIDXDBPathCompose", [](const char* share_path, char* buffer,
                                          size_t bytes) { return StoreBelow(share_path, "db", buffer, bytes); }},
      .index_id{"FILEIDXGetIndexID", StoreId}};
  return *locations;
}

FakeFunction<int(int, const char*, unsigned long long)>& FakeQuota() {
  // A failing question answers 0, as a shortage does.
  static auto* const is_enough = new FakeFunction<int(int, const char*, unsigned long long)>(
      "NIMOQuotaIsEnough", HasRoom, [](int, const char*, unsigned long long) { return 0; });
  return *is_enough;
}

FakeFunction<int(const char*, const char*)>& FakeCaseCompare() {
  static auto* const compare =
      new FakeFunction<int(const char*, const char*)>("NLIBCUnicodeUTF8StrCaseCmp", CompareFolded);
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
      .execl{"NLIBCExecl", [](const std::string&, unsigned, const std::vector<std::string>&) { return 0; }},
      .exec{"NLIBCExec", [](const std::string&, const std::vector<std::string>&) { return 0; }}};
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

namespace {

std::vector<std::string> UpToNull(va_list list) {
  std::vector<std::string> arguments;
  for (const char* argument = va_arg(list, const char*); argument != nullptr; argument = va_arg(list, const char*)) {
    arguments.emplace_back(argument);
  }
  return arguments;
}

}  // namespace

int NLIBCExecl(const char* program, unsigned flags, ...) {
  va_list list;
  va_start(list, flags);
  const std::vector<std::string> arguments = UpToNull(list);
  va_end(list);
  return orbisk::test::FakeProcess().execl(program, flags, arguments);
}

int NLIBCExec(const char* program, ...) {
  va_list list;
  va_start(list, program);
  const std::vector<std::string> arguments = UpToNull(list);
  va_end(list);
  return orbisk::test::FakeProcess().exec(program, arguments);
}
