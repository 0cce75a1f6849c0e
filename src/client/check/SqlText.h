#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace check {

/// The offset of what follows blanks and comments from `offset` on; the text's size where nothing does.
std::size_t skipSqlBlanks(std::string_view sql, std::size_t offset);

/// The offset behind the first ";" that ends a line outside of texts and comments, or the text's size: there
/// the shell begins anew after a statement that it could not read.
std::size_t endOfFaultyStatement(std::string_view sql, std::size_t offset);

/// The offset of the first of the rows from `begin` on, "(…), (…)" at the outermost level, that has another
/// number of cells than the row before it; `begin` where there is none.
std::size_t findUnequalRow(std::string_view sql, std::size_t begin, std::size_t end);

/// The offset of the first occurrence of an identifier from `begin` on; `begin` where there is none.
std::size_t findWord(std::string_view sql, std::size_t begin, std::size_t end, std::string_view word);

/// Where a statement writes which text.
class SqlLiterals {
 public:
  /// Those between the offsets `begin` and `end` of `sql`.
  SqlLiterals(std::string_view sql, std::size_t begin, std::size_t end);

  /// The offset of the text with that content, of its second occurrence when asked again, and so on; where
  /// there is none, of the text that it was most likely made of; else that of the statement.
  std::size_t locate(const std::string& content);

 private:
  struct Literal {
    std::size_t offset;
    std::string content;
  };

  std::size_t mostAlike(std::string_view content);

  std::size_t begin_;
  std::vector<Literal> literals_;
  std::unordered_map<std::string, std::vector<std::size_t>> unused_;  ///< Offsets by content, the last first.
  std::unordered_map<std::string, std::size_t> lastUsed_;
  std::size_t comparisons_ = 0;
};

}  // namespace check
