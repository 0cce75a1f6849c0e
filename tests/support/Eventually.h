#pragma once

#include <chrono>
#include <concepts>
#include <thread>

namespace propertyservice::test {

/// Long enough for the slowest machine under a sanitizer; only a test that fails waits so long.
inline constexpr std::chrono::milliseconds kPatience = std::chrono::seconds(20);

/// Asks every millisecond until the condition holds; false when it does not within `patience`.
template <std::predicate Condition>
bool eventually(Condition holds, std::chrono::milliseconds patience = kPatience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace propertyservice::test
