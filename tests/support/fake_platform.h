// A platform for unit tests: every operation of the seam, recorded, scripted, and failing on demand.
//
// Linking nimo_fake answers platform/include/nimo in the program. Each header of the seam has a fake_<header>.h here
// with its functions as FakeFunction objects; without a script they behave like a small, sane box.
//
//   FakePlatform platform;                                     // everything forgotten, at both ends of the test
//   FakeUsers().Add("Orbisk", 210, 211);
//   FakeUsers().get.FailAt(2, EIO);                            // the second call from now on
//   FakeFileSystem().is_mount_point.Next([](const char*) { return 1; });
//   EXPECT_TRUE(platform.calls().front().sdk_mutex_held);
//
// A new header of the seam needs a class derived from FakeService that has one FakeFunction for each operation, and the
// operations as one-line functions that call them.
#pragma once

#include <cerrno>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace orbisk::test {

/// One call of an operation of the seam.
struct SeamCall {
  std::string function;
  std::vector<std::string> arguments;  ///< as ArgumentText shows them
  bool sdk_mutex_held;                 ///< whether sdk::SDKMutex() was held when the call was made
};

/// How an argument is recorded. Specialise it for the records of a new header.
template <class T>
struct ArgumentText {
  static std::string Of(const T& argument) {
    if constexpr (std::is_pointer_v<T>) {
      return argument == nullptr ? "null" : "pointer";
    } else if constexpr (std::is_same_v<T, std::string>) {
      return argument;
    } else {
      return std::to_string(argument);
    }
  }
};
template <>
struct ArgumentText<const char*> {
  static std::string Of(const char* argument) { return argument == nullptr ? "null" : argument; }
};

/// What the fakes of one header keep between calls; put back to its beginning with the platform.
class FakeService {
 public:
  FakeService();
  FakeService(const FakeService&) = delete;
  FakeService& operator=(const FakeService&) = delete;
  virtual void Reset() = 0;

 protected:
  ~FakeService() = default;
};

/// The part of a faked operation that does not depend on its signature.
class FakeFunctionBase {
 public:
  explicit FakeFunctionBase(const char* name);
  FakeFunctionBase(const FakeFunctionBase&) = delete;
  FakeFunctionBase& operator=(const FakeFunctionBase&) = delete;

  const std::string& name() const { return name_; }
  /// The calls of this operation since the platform was reset.
  std::vector<SeamCall> calls() const;
  /// Makes the `nth` call from now on (1: the next) fail with `error` as the platform's last error.
  void FailAt(int nth, int error = EIO);
  /// Makes every call from now on fail.
  void FailAlways(int error = EIO);
  virtual void Reset();

 protected:
  ~FakeFunctionBase() = default;
  /// Records a call; true if it has to fail, the last error being set then.
  bool Enter(std::vector<std::string> arguments);

  mutable std::mutex mutex_;  // guards this class's members and the scripts

 private:
  const std::string name_;
  std::deque<std::pair<int, int>> failures_;  // calls still to go, error
  int always_ = 0;
};

template <class Signature>
class FakeFunction;

/// One operation: records its calls, then fails if it was told to, or does what was scripted, or what it usually does.
/// Threads: any.
template <class Result, class... Arguments>
class FakeFunction<Result(Arguments...)> final : public FakeFunctionBase {
 public:
  using Behaviour = std::function<Result(Arguments...)>;

  /// A failing call returns -1, false, null or an empty value, unless `failing` says otherwise. An operation without a
  /// result fails only by what `failing` says: what releases does so even then.
  FakeFunction(const char* name, Behaviour usual, Behaviour failing = UsualFailing())
      : FakeFunctionBase(name), usual_(std::move(usual)), failing_(std::move(failing)) {}

  Result operator()(Arguments... arguments) {
    const bool fails = Enter({ArgumentText<Arguments>::Of(arguments)...});
    return Choose(fails)(arguments...);
  }

  /// Scripts the next call that has no script yet.
  FakeFunction& Next(Behaviour behaviour) {
    const std::lock_guard lock(mutex_);
    next_.push_back(std::move(behaviour));
    return *this;
  }
  /// Scripts all calls that Next says nothing of.
  void Always(Behaviour behaviour) {
    const std::lock_guard lock(mutex_);
    scripted_ = std::move(behaviour);
  }
  /// What the operation does without a script, for scripts that add to it.
  Result Usual(Arguments... arguments) { return usual_(arguments...); }

  void Reset() override {
    FakeFunctionBase::Reset();
    const std::lock_guard lock(mutex_);
    next_.clear();
    scripted_ = nullptr;
  }

 private:
  static Behaviour UsualFailing() {
    if constexpr (std::is_void_v<Result>) {
      return nullptr;
    } else if constexpr (std::is_same_v<Result, int>) {
      return [](Arguments...) { return -1; };
    } else {
      return [](Arguments...) { return Result(); };
    }
  }

  Behaviour Choose(bool fails) {
    const std::lock_guard lock(mutex_);
    if (fails && failing_) {
      return failing_;
    }
    if (next_.empty()) {
      return scripted_ ? scripted_ : usual_;
    }
    Behaviour behaviour = std::move(next_.front());
    next_.pop_front();
    return behaviour;
  }

  const Behaviour usual_;
  const Behaviour failing_;
  std::deque<Behaviour> next_;
  Behaviour scripted_;
};

/// The platform of one test: forgets all calls, scripts and state at construction and destruction. One at a time.
class FakePlatform {
 public:
  FakePlatform() { Reset(); }
  ~FakePlatform() { Reset(); }
  FakePlatform(const FakePlatform&) = delete;
  FakePlatform& operator=(const FakePlatform&) = delete;

  /// All calls since then, in order.
  static std::vector<SeamCall> calls();
  /// How many they are.
  static size_t call_count();
  /// Forgets the calls and keeps scripts and state: for programs that make millions of them.
  static void ForgetCalls();
  /// Makes the `nth` call from now on (1: the next), of whatever operation, fail with `error`.
  static void FailCall(size_t nth, int error = EIO);
  static void Reset();
};

/// Makes `error` the calling thread's last error of the platform.
void SetPlatformError(int error, const char* file, int line);
/// The same for a failing fake: reported by "fake_platform.cpp", line 1. Returns -1.
int FailPlatform(int error);

}  // namespace orbisk::test
