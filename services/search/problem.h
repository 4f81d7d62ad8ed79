// From what went wrong inside to the code and message that a client is told.
#pragma once

#include <exception>
#include <optional>
#include <string>

namespace nimoelasticd {

struct Problem {
  int code;
  std::string message;
};

/// What the exception that is being handled means to clients. Threads: any.
Problem CurrentProblem();

/// What `work` throws; nothing when it returns.
template <typename Work>
std::optional<Problem> Try(const Work& work) {
  try {
    work();
    return std::nullopt;
  } catch (const std::exception&) {
    return CurrentProblem();
  }
}

}  // namespace nimoelasticd
