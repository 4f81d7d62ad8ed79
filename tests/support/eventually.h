// Waiting for what another process or thread will do.
#pragma once

#include <chrono>
#include <functional>

namespace orbisk::test {

/// Calls `holds` every few milliseconds until it is true; false if it is not within `limit`.
bool Eventually(const std::function<bool()>& holds, std::chrono::milliseconds limit = std::chrono::seconds(30));

}  // namespace orbisk::test
