// A process that takes locks, for the lock tests. Its waits are a hundredth of what the library asks for.
//
//   lock_worker hold PATH          takes the lock, says "held", and keeps it until its input ends
//   lock_worker count PATH FILE N  N times: takes the lock, adds one to the number in FILE
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/lock_file.h"
#include "tests/support/fake_time.h"
#include "tests/support/temp_dir.h"

namespace {

void Hold(const std::string& path) {
  const orbisk::LockFile lock(path, true);
  std::cout << "held" << std::endl;
  while (std::cin.get() != std::char_traits<char>::eof()) {
  }
}

void Count(const std::string& path, const std::string& file, long times) {
  for (long i = 0; i < times; ++i) {
    const orbisk::LockFile lock(path, true);
    const long number = std::stol(orbisk::test::ReadFile(file));
    orbisk::test::WriteFile(file, std::to_string(number + 1));
  }
}

}  // namespace

int main(int argc, char** argv) {
  orbisk::test::FakeTime time;
  srandom(static_cast<unsigned>(getpid()));
  std::vector<int> chance;
  for (int i = 0; i < 100000; ++i) {
    chance.push_back(static_cast<int>(random()));
  }
  time.ScriptRand(chance);
  time.OnWait([&time](size_t nth) {
    const auto microseconds = time.waits().at(nth - 1).microseconds / 100;
    const timespec pause{0, static_cast<long>(microseconds * 1000)};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
  });
  try {
    if (argc == 3 && strcmp(argv[1], "hold") == 0) {
      Hold(argv[2]);
    } else if (argc == 5 && strcmp(argv[1], "count") == 0) {
      Count(argv[2], argv[3], strtol(argv[4], nullptr, 10));
    } else {
      return 2;
    }
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
  return 0;
}
