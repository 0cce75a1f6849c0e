#pragma once

#include <chrono>
#include <concepts>
#include <thread>

namespace propertyservice::test {

/// Waits until the condition holds; false when it does not within the deadline.
template <std::predicate Condition>
bool eventually(Condition holds, std::chrono::milliseconds deadline = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace propertyservice::test
