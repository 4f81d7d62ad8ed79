// What a call throws, as one text to compare.
#pragma once

#include <string>

#include "orbisk/error.h"

namespace orbisk::test {

/// The code of the Error that `action` throws, with its reason: "9999 GetNodeByPath failed, path=/". "none" without.
template <class Action>
std::string ErrorOf(Action action) {
  try {
    action();
  } catch (const Error& error) {
    return std::to_string(error.code()) + " " + error.what();
  }
  return "none";
}

}  // namespace orbisk::test
