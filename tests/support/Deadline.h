#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace propertyservice::test {

using namespace std::chrono_literals;

/// Long enough for the slowest machine under a sanitizer; only a test that fails waits so long.
inline constexpr std::chrono::milliseconds kPatience = 20s;

/// Asks every millisecond until `condition` holds; false when it does not within `patience`.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds patience = kPatience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

}  // namespace propertyservice::test
