// The last error, one for each thread.
#include "nimo/error.h"

#include "platform/linux/last_error.h"

namespace nimo {
namespace {

struct LastError {
  int code = 0;
  const char* file = "";
  int line = 0;
};

thread_local LastError last_error;

}  // namespace

int Fail(int code, const char* file, int line) {
  last_error = {code, file, line};
  return -1;
}

}  // namespace nimo

int NLIBCErrGet() {
  return nimo::last_error.code;
}

const char* NLIBCErrorGetFile() {
  return nimo::last_error.file;
}

int NLIBCErrorGetLine() {
  return nimo::last_error.line;
}
