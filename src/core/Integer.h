#pragma once

#include <string>

namespace propertyservice {

/// The one way from text to an integer: base 10, leading white space and a sign accepted, conversion stops at
/// the first character that is not a digit ("12abc" gives 12). Throws `std::invalid_argument` when there is
/// no digit and `std::out_of_range` when the number does not fit 32 bits.
inline int toInteger(const std::string& text) {
  return std::stoi(text, nullptr, 10);
}

}  // namespace propertyservice
