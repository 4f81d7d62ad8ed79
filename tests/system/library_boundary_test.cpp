// What a program that links libfileindex.so sees of it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "orbisk/error.h"
#include "orbisk/lock_file.h"
#include "orbisk/util.h"
#include "tests/support/record_capture.h"

namespace orbisk {
namespace {

TEST(LibraryBoundary, AnErrorThrownInTheLibraryIsCaughtByItsType) {
  const test::RecordCapture capture;
  try {
    const LockFile lock("/no/such/folder/test.lock", true);
    FAIL() << "nothing thrown";
  } catch (const Error& error) {
    EXPECT_EQ(506, error.code());
    EXPECT_STREQ("open failed, path=/no/such/folder/test.lock, reason=No such file or directory", error.what());
    EXPECT_STREQ(
        "Orbisk error, code=506, reason=[open failed, path=/no/such/folder/test.lock, reason=No such file or "
        "directory]",
        error.std::runtime_error::what());
  }
}

TEST(LibraryBoundary, TheErrorsTypeIsExported) {
  void* library = dlopen("libfileindex.so.0", RTLD_LAZY | RTLD_NOLOAD);
  ASSERT_NE(nullptr, library) << dlerror();
  EXPECT_NE(nullptr, dlsym(library, "_ZTIN6orbisk5ErrorE"));
  EXPECT_NE(nullptr, dlsym(library, "_ZTVN6orbisk5ErrorE"));
  dlclose(library);
}

TEST(LibraryBoundary, AnErrorOfTheProgramsOwnPassesThroughTheLibrary) {
  const test::RecordCapture capture;
  ProcessDir("/proc/self/fdinfo", [](const std::string&) { throw Error(Code(914), "from the program"); });
  ASSERT_FALSE(capture.texts().empty());
  // Known for what it is: only an Error's record has a reason.
  EXPECT_NE(std::string::npos, capture.texts()[0].find(", reason=from the program")) << capture.texts()[0];
}

}  // namespace
}  // namespace orbisk
