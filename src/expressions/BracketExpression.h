#pragma once

#include <bitset>
#include <cstddef>
#include <string_view>

namespace propertyservice {

/// A set of bytes, as an expression names it.
using Bytes = std::bitset<256>;

/// Reads a bracket expression as the C library does in the "C" locale, the same in basic and extended
/// expressions. `at` is the place after the opening bracket, and becomes the one after the closing bracket.
/// Returns false where the C library would not compile it; `at` and `bytes` mean nothing then.
bool readBracketExpression(std::string_view expression, std::size_t& at, Bytes& bytes);

}  // namespace propertyservice
