#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "expressions/BracketExpression.h"

namespace propertyservice {

/// A POSIX basic regular expression without groups, intervals and back-references: a sequence of units, each
/// a set of bytes with or without a "*". Anchored at the start of the text, and with a "$" at its end there,
/// too.
///
/// Decides as the C library does in the "C" locale, but in a time that is linear in the text, and without
/// memory beyond that of the compiled expression, whatever the expression and the texts are. Safe from any
/// thread.
class SimpleExpression {
 public:
  /// Nothing when the C library would not compile it either, or when it has more than 256 units.
  /// REQUIRES: `expression` has neither a NUL nor a backslash before a byte that becomes an operator by it.
  static std::optional<SimpleExpression> compile(std::string_view expression);

  /// Whether a beginning of `text`, or all of it with an anchor at the end, matches. `text` ends at its first
  /// NUL.
  bool matches(std::string_view text) const;

 private:
  class Reader;

  /// Matches one of `bytes`; when it is repeated, any number of them.
  struct Unit {
    Bytes bytes;
    bool isRepeated = false;
  };

  /// The states of the automaton as bits: the state n is reached by a text that the first n units match.
  using Word = std::uint64_t;

  SimpleExpression(const std::vector<Unit>& units, bool isAnchoredAtEnd);

  template <std::size_t kWords>
  bool run(std::string_view text) const;

  std::size_t words_;  ///< Of a set of states.
  std::size_t end_;    ///< The state that all units lead to.
  bool isAnchoredAtEnd_;
  std::vector<Word> repeated_;    ///< The states before a repeated unit.
  std::vector<Word> acceptable_;  ///< For each byte, the states before a unit that matches it.
};

}  // namespace propertyservice
