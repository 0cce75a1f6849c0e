#pragma once

#include <algorithm>

#include "mqtt/Connection.h"

namespace propclient {

using mqtt::Clock;
using mqtt::Deadline;

inline Deadline earlier(const Deadline& a, const Deadline& b) {
  return a && b ? std::min(*a, *b) : a ? a : b;
}

}  // namespace propclient
