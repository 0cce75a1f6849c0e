#pragma once

#include <string>
#include <string_view>

namespace common {

/// `text` between double quotes, for a log entry.
inline std::string quote(std::string_view text) {
  std::string quoted;
  quoted.reserve(text.size() + 2);
  quoted.append(1, '"').append(text).append(1, '"');
  return quoted;
}

}  // namespace common
