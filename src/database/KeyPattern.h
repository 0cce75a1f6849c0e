#pragma once

#include <optional>
#include <string>

#include "expressions/SimpleExpression.h"

namespace propertyservice {

/// A pattern for keys, made of text from clients: its first "%" stands for any characters, later ones for
/// themselves; the rest is a POSIX basic regular expression, anchored at the start of the key only.
class KeyPattern {
 public:
  /// Nothing when the expression does not compile, is longer than 256 bytes, has a NUL, or has a
  /// back-reference, group, interval or GNU operator: a backslash before one of `( ) { } | + ? < > ' w W s S
  /// b B`, a backtick or a digit from 1 to 9.
  static std::optional<KeyPattern> compile(const std::string& pattern);

  bool matches(const std::string& key) const;

 private:
  KeyPattern() = default;

  std::string head_;  ///< What every match begins with, byte for byte; a "." stands for any byte.
  std::optional<SimpleExpression> expression_;  ///< None where the head alone decides.
};

}  // namespace propertyservice
