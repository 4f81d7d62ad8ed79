// A process that takes locks, for the lock tests. Its waits are a hundredth of the library's own.
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

void AddOne(const std::string& path, const std::string& file) {
  const orbisk::LockFile lock(path, true);
  const long number = std::stol(orbisk::test::ReadFile(file));
  orbisk::test::WriteFile(file, std::to_string(number + 1));
}

// Tries that are used up are no failure here: the lock is not fair, and the others take it again at once.
void Count(const std::string& path, const std::string& file, long times) {
  for (long done = 0; done < times;) {
    try {
      AddOne(path, file);
      ++done;
    } catch (const orbisk::Error& error) {
      if (error.reason() != "Exceed max retry, path=" + path) {
        throw;
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  orbisk::test::FakeTime time;
  srandom(static_cast<unsigned>(getpid()));
  time.OnWait([](size_t) {
    const timespec pause{0, random() % 10 * 1000000};
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
