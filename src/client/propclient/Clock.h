#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

namespace propclient {

using Clock = std::chrono::steady_clock;

/// Nothing: never.
using Deadline = std::optional<Clock::time_point>;

inline Deadline earlier(const Deadline& a, const Deadline& b) {
  return a && b ? std::min(*a, *b) : a ? a : b;
}

}  // namespace propclient
