#pragma once

#include <optional>
#include <string>

#include "core/RegularExpression.h"

namespace propertyservice {

/// A pattern for keys, made of text from clients: its first "%" stands for any characters, later ones for
/// themselves; the rest is a POSIX basic regular expression, anchored at the start of the key only.
class KeyPattern {
 public:
  /// Nothing when the expression does not compile, or when it could stall or end the process in the C
  /// library: longer than 256 bytes, with a NUL, or with a back-reference, group, interval or one of the GNU
  /// operators behind a backslash.
  static std::optional<KeyPattern> compile(const std::string& pattern);

  bool matches(const std::string& key) const;

 private:
  KeyPattern() = default;

  std::string head_;  ///< What every match begins with, byte for byte; a "." stands for any byte.
  std::optional<RegularExpression> expression_;  ///< None where the head alone decides.
};

}  // namespace propertyservice
