// The calls of the fake platform, and its last error.
#include "tests/support/fake_platform.h"

#include <algorithm>

#include "nimo/error.h"
#include "orbisk/sdk/sdk_mutex.h"

namespace orbisk::test {
namespace {

// Everything that a test's end puts back, and the calls made. Never destroyed, as the fakes are globals themselves.
struct Registry {
  std::mutex mutex;  // guards the rest
  std::vector<FakeFunctionBase*> functions;
  std::vector<FakeService*> services;
  std::vector<SeamCall> calls;
  size_t failing_call = 0;  // counted from 1; 0 for none
  int failing_error = 0;
};

Registry& TheRegistry() {
  static auto* const registry = new Registry;
  return *registry;
}

// The mutex is of the normal kind: trying it tells whether anybody holds it, this thread included.
bool SdkMutexIsHeld() {
  Mutex& mutex = sdk::SDKMutex();
  if (!mutex.TryLock()) {
    return true;
  }
  mutex.Unlock();
  return false;
}

struct LastError {
  int code = 0;
  const char* file = "";
  int line = 0;
};
thread_local LastError last_error;

struct ErrorFunctions {
  FakeFunction<int()> get{"NLIBCErrGet", [] { return last_error.code; }};
  FakeFunction<const char*()> get_file{"NLIBCErrorGetFile", [] { return last_error.file; }};
  FakeFunction<int()> get_line{"NLIBCErrorGetLine", [] { return last_error.line; }};
};

ErrorFunctions& FakeErrors() {
  static auto* const functions = new ErrorFunctions;
  return *functions;
}

}  // namespace

FakeService::FakeService() {
  const std::lock_guard lock(TheRegistry().mutex);
  TheRegistry().services.push_back(this);
}

FakeFunctionBase::FakeFunctionBase(const char* name) : name_(name) {
  const std::lock_guard lock(TheRegistry().mutex);
  TheRegistry().functions.push_back(this);
}

std::vector<SeamCall> FakeFunctionBase::calls() const {
  std::vector<SeamCall> mine;
  for (const SeamCall& call : FakePlatform::calls()) {
    if (call.function == name_) {
      mine.push_back(call);
    }
  }
  return mine;
}

void FakeFunctionBase::FailAt(int nth, int error) {
  const std::lock_guard lock(mutex_);
  failures_.emplace_back(nth, error);
}

void FakeFunctionBase::FailAlways(int error) {
  const std::lock_guard lock(mutex_);
  always_ = error;
}

void FakeFunctionBase::Reset() {
  const std::lock_guard lock(mutex_);
  failures_.clear();
  always_ = 0;
}

bool FakeFunctionBase::Enter(std::vector<std::string> arguments) {
  const bool held = SdkMutexIsHeld();
  int error = 0;
  {
    const std::lock_guard lock(TheRegistry().mutex);
    TheRegistry().calls.push_back({name_, std::move(arguments), held});
    if (TheRegistry().calls.size() == TheRegistry().failing_call) {
      error = TheRegistry().failing_error;
    }
  }
  const std::lock_guard lock(mutex_);
  error = always_ != 0 ? always_ : error;
  for (auto& [calls_to_go, failure] : failures_) {
    if (--calls_to_go == 0) {
      error = failure;
    }
  }
  std::erase_if(failures_, [](const auto& failure) { return failure.first <= 0; });
  if (error != 0) {
    FailPlatform(error);
  }
  return error != 0;
}

std::vector<SeamCall> FakePlatform::calls() {
  const std::lock_guard lock(TheRegistry().mutex);
  return TheRegistry().calls;
}

size_t FakePlatform::call_count() {
  const std::lock_guard lock(TheRegistry().mutex);
  return TheRegistry().calls.size();
}

void FakePlatform::ForgetCalls() {
  const std::lock_guard lock(TheRegistry().mutex);
  TheRegistry().calls.clear();
}

void FakePlatform::FailCall(size_t nth, int error) {
  const std::lock_guard lock(TheRegistry().mutex);
  TheRegistry().failing_call = TheRegistry().calls.size() + nth;
  TheRegistry().failing_error = error;
}

void FakePlatform::Reset() {
  std::vector<FakeFunctionBase*> functions;
  std::vector<FakeService*> services;
  {
    const std::lock_guard lock(TheRegistry().mutex);
    TheRegistry().calls.clear();
    TheRegistry().failing_call = 0;
    functions = TheRegistry().functions;
    services = TheRegistry().services;
  }
  for (FakeFunctionBase* function : functions) {
    function->Reset();
  }
  for (FakeService* service : services) {
    service->Reset();
  }
  last_error = LastError();
}

void SetPlatformError(int error, const char* file, int line) {
  last_error = {error, file, line};
}

int FailPlatform(int error) {
  SetPlatformError(error, "fake_platform.cpp", 1);
  return -1;
}

}  // namespace orbisk::test

int NLIBCErrGet() {
  return orbisk::test::FakeErrors().get();
}

const char* NLIBCErrorGetFile() {
  return orbisk::test::FakeErrors().get_file();
}

int NLIBCErrorGetLine() {
  return orbisk::test::FakeErrors().get_line();
}
