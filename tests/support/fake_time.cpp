// sleep(3), usleep(3), time(2) and rand(3), replaced.
#include "tests/support/fake_time.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <mutex>

namespace orbisk::test {
namespace {

constexpr uint64_t kMicroseconds = 1000000;

struct State {
  std::mutex mutex;  // guards the rest
  bool active = false;
  time_t start = 0;
  uint64_t passed_microseconds = 0;
  std::vector<Wait> waits;
  std::vector<int> rand_values;
  size_t rand_calls = 0;
  std::function<void(size_t)> on_wait;
};

State& TheState() {
  static auto* const state = new State;  // never destroyed: others may wait while the program ends
  return *state;
}

void ReallyWait(uint64_t microseconds) {
  timespec left{static_cast<time_t>(microseconds / kMicroseconds),
                static_cast<long>(microseconds % kMicroseconds * 1000)};
  clock_nanosleep(CLOCK_MONOTONIC, 0, &left, nullptr);
}

void TakeWait(const char* function, uint64_t microseconds) {
  State& state = TheState();
  std::function<void(size_t)> action;
  size_t number = 0;
  {
    const std::lock_guard lock(state.mutex);
    if (state.active) {
      state.waits.push_back({function, microseconds});
      state.passed_microseconds += microseconds;
      number = state.waits.size();
      action = state.on_wait;
    }
  }
  if (number == 0) {
    ReallyWait(microseconds);
  } else if (action) {
    action(number);
  }
}

time_t Now() {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  if (state.active) {
    return state.start + static_cast<time_t>(state.passed_microseconds / kMicroseconds);
  }
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

int Rand() {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  if (!state.active) {
    return static_cast<int>(random());
  }
  const size_t index = state.rand_calls++;
  return state.rand_values.empty() ? 0 : state.rand_values[std::min(index, state.rand_values.size() - 1)];
}

}  // namespace

FakeTime::FakeTime(time_t now) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.active = true;
  state.start = now;
  state.passed_microseconds = 0;
  state.waits.clear();
  state.rand_values.clear();
  state.rand_calls = 0;
  state.on_wait = nullptr;
}

FakeTime::~FakeTime() {
  const std::lock_guard lock(TheState().mutex);
  TheState().active = false;
}

std::vector<Wait> FakeTime::waits() const {
  const std::lock_guard lock(TheState().mutex);
  return TheState().waits;
}

time_t FakeTime::now() const {
  return Now();
}

void FakeTime::Advance(time_t seconds) {
  const std::lock_guard lock(TheState().mutex);
  TheState().passed_microseconds += static_cast<uint64_t>(seconds) * kMicroseconds;
}

void FakeTime::ScriptRand(std::vector<int> values) {
  const std::lock_guard lock(TheState().mutex);
  TheState().rand_values = std::move(values);
  TheState().rand_calls = 0;
}

size_t FakeTime::rand_calls() const {
  const std::lock_guard lock(TheState().mutex);
  return TheState().rand_calls;
}

void FakeTime::OnWait(std::function<void(size_t nth)> action) {
  const std::lock_guard lock(TheState().mutex);
  TheState().on_wait = std::move(action);
}

}  // namespace orbisk::test

extern "C" {

unsigned int sleep(unsigned int seconds) {
  orbisk::test::TakeWait("sleep", uint64_t{seconds} * orbisk::test::kMicroseconds);
  return 0;
}

int usleep(useconds_t microseconds) {
  orbisk::test::TakeWait("usleep", microseconds);
  return 0;
}

time_t time(time_t* result) noexcept {
  const time_t now = orbisk::test::Now();
  if (result != nullptr) {
    *result = now;
  }
  return now;
}

int rand() noexcept {
  return orbisk::test::Rand();
}
}
