#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "expressions/BracketExpression.h"

namespace propertyservice {

/// A POSIX extended regular expression without back-references and GNU operators.
///
/// Decides as the C library does in the "C" locale, but in a time that is linear in the text, and without
/// memory beyond that of the compiled expression, at most 17 KiB, whatever the texts are. Safe from any
/// thread.
class ExtendedExpression {
 public:
  /// Nothing for an expression that the C library would not compile, and for a rare one that is left to it:
  /// more than 256 bytes to match once its repetitions are copied out, an operator of GNU, an empty
  /// alternative, or a repetition of a repetition, of an anchor, or of no times.
  static std::optional<ExtendedExpression> compile(std::string_view expression);

  /// Whether it matches anywhere in `text`, which ends at its first NUL.
  bool matches(std::string_view text) const;

 private:
  class Compiler;

  /// A set of positions, as bits. A position is a place in the expression that matches one byte.
  using Word = std::uint64_t;
  using Set = std::vector<Word>;

  ExtendedExpression() = default;

  template <std::size_t kWords>
  bool run(std::string_view text) const;

  std::size_t words_ = 0;  ///< Of a set.
  Set atBegin_;            ///< Where a match may go on at the beginning of the text,
  Set later_;              ///< and after it.
  Set acceptable_;         ///< For each byte, the positions that match it.
  Set next_;               ///< For each position, those that may match the byte after its own.
  Set last_;               ///< The positions with which a match may end,
  Set lastAtEnd_;          ///< or may at the end of the text.
  bool matchesAll_ = false;
  bool matchesEmptyText_ = false;
  bool matchesAtEnd_ = false;  ///< The end of any text that is not empty.
};

}  // namespace propertyservice
