#include "client/check/ExpressionCost.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <string>
#include <vector>

namespace check {

namespace {

constexpr std::size_t kMostCopies = 4096;
constexpr std::size_t kMostLength = 2000;
constexpr std::size_t kDeepest = 100;
constexpr std::size_t kMostOptionalGroups = 16;
constexpr std::size_t kMostOperators = 12;

/// Characters that a backslash makes operators of the C library, besides the back-references.
constexpr std::string_view kOperators = "wWsSbB<>`'";

/// The offset after the bracket expression that begins at `offset`.
std::size_t skipBrackets(std::string_view text, std::size_t offset) {
  std::size_t at = offset + 1;
  at += text.substr(at).starts_with('^') ? 1 : 0;
  at += text.substr(at).starts_with(']') ? 1 : 0;
  while (at < text.size() && text[at] != ']') {
    const bool isClass = text[at] == '[' && at + 1 < text.size() &&
                         std::string_view(":.=").find(text[at + 1]) != std::string_view::npos;
    const std::size_t end =
        isClass ? text.find(std::string{text[at + 1], ']'}, at + 2) : std::string_view::npos;
    at = end == std::string_view::npos ? at + 1 : end + 2;
  }
  return std::min(at + 1, text.size());
}

/// Adds up how many copies of its parts an expression is compiled to.
class Copies {
 public:
  bool tooMany() const { return tooMany_; }

  void atom(std::size_t size = 1) {
    Level& level = levels_.back();
    level.total += level.last;
    level.last = size;
    afterGroup_ = false;
    limit(level.total + level.last);
  }

  void repeat(std::size_t times) {
    levels_.back().last *= std::max<std::size_t>(times, 1);
    limit(levels_.back().last);
  }

  void optional() {
    optionalGroups_ += afterGroup_ ? 1 : 0;
    tooMany_ = tooMany_ || optionalGroups_ > kMostOptionalGroups;
    atom();
  }

  void escape(char character) {
    operators_ += kOperators.find(character) != std::string_view::npos ? 1 : 0;
    tooMany_ = tooMany_ || operators_ > kMostOperators || (character >= '1' && character <= '9');
    atom();
  }

  void open() {
    levels_.emplace_back();
    tooMany_ = tooMany_ || levels_.size() > kDeepest;
  }

  void close() {
    if (levels_.size() > 1) {
      const std::size_t size = levels_.back().total + levels_.back().last;
      levels_.pop_back();
      atom(size + 1);
      afterGroup_ = true;
    }
  }

 private:
  struct Level {
    std::size_t total = 0;
    std::size_t last = 0;
  };

  void limit(std::size_t copies) { tooMany_ = tooMany_ || copies > kMostCopies; }

  std::vector<Level> levels_{1};
  std::size_t optionalGroups_ = 0;
  std::size_t operators_ = 0;
  bool afterGroup_ = false;
  bool tooMany_ = false;
};

/// How often "{2,5}" repeats at most; an open end counts as one more.
std::size_t timesOf(std::string_view interval) {
  std::size_t least = 0;
  std::size_t most = 0;
  const char* const end = interval.data() + interval.size();
  const auto first = std::from_chars(interval.data() + 1, end, least);
  if (first.ec == std::errc::result_out_of_range) {
    return kMostCopies + 1;
  }
  if (first.ptr < end && *first.ptr == ',' &&
      std::from_chars(first.ptr + 1, end, most).ec == std::errc::result_out_of_range) {
    return kMostCopies + 1;
  }
  return std::min(std::max(least + 1, most), kMostCopies + 1);
}

/// Adds the piece that begins at `offset`; returns the offset after it.
std::size_t addPiece(std::string_view text, std::size_t offset, Copies& copies) {
  switch (text[offset]) {
    case '[':
      copies.atom();
      return skipBrackets(text, offset);
    case '(':
      copies.open();
      break;
    case ')':
      copies.close();
      break;
    case '+':
      copies.repeat(2);
      break;
    case '*':
    case '?':
      copies.optional();
      break;
    case '{': {
      const std::size_t end = std::min(text.find('}', offset), text.size());
      copies.repeat(timesOf(text.substr(offset, end - offset)));
      return end + 1;
    }
    case '\\':
      copies.escape(offset + 1 < text.size() ? text[offset + 1] : '\0');
      return offset + 2;
    default:
      copies.atom();
  }
  return offset + 1;
}

/// The alternatives of the whole expression.
std::vector<std::string_view> alternatives(std::string_view expression) {
  std::vector<std::string_view> found;
  std::size_t begin = 0;
  std::size_t depth = 0;
  for (std::size_t at = 0; at < expression.size();) {
    const char character = expression[at];
    if (character == '|' && depth == 0) {
      found.push_back(expression.substr(begin, at - begin));
      begin = at + 1;
    }
    depth += character == '(' ? 1 : 0;
    depth -= character == ')' && depth > 0 ? 1 : 0;
    at = character == '[' ? skipBrackets(expression, at) : at + (character == '\\' ? 2 : 1);
  }
  found.push_back(expression.substr(begin));
  return found;
}

bool isAnchoredAlternative(std::string_view text) {
  while (text.starts_with('(')) {
    text.remove_prefix(1);
  }
  while (text.ends_with(')')) {
    text.remove_suffix(1);
  }
  return text.starts_with('^') && text.ends_with('$') && !text.ends_with("\\$");
}

}  // namespace

bool isAffordable(std::string_view expression) {
  if (expression.size() > kMostLength) {
    return false;
  }
  Copies copies;
  for (std::size_t at = 0; at < expression.size() && !copies.tooMany();) {
    at = addPiece(expression, at, copies);
  }
  return !copies.tooMany();
}

bool isAnchored(std::string_view expression) {
  const auto all = alternatives(expression);
  return std::all_of(all.begin(), all.end(), isAnchoredAlternative);
}

std::string foreignEscape(std::string_view expression) {
  for (std::size_t at = 0; at < expression.size();) {
    if (expression[at] == '[') {
      const std::size_t end = skipBrackets(expression, at);
      if (const std::size_t escape = expression.find('\\', at); escape < end - 1) {
        return std::string(expression.substr(escape, 2));
      }
      at = end;
    } else if (expression[at] == '\\' && at + 1 < expression.size()) {
      const char character = expression[at + 1];
      const bool letter = std::isalnum(static_cast<unsigned char>(character)) != 0;
      if (letter && kOperators.find(character) == std::string_view::npos) {
        return std::string(expression.substr(at, 2));
      }
      at += 2;
    } else {
      ++at;
    }
  }
  return "";
}

}  // namespace check
