#include "database/KeyPattern.h"

#include <algorithm>
#include <string_view>

#include "core/Constants.h"

namespace propertyservice {

namespace {

constexpr std::size_t kLargestPatternBytes = 256;

/// After a backslash these make a group, an interval, a back-reference or a GNU operator, with which an
/// expression is not a simple one.
constexpr std::string_view kOperators = "(){}|+?<>`'wWsSbB123456789";

bool isRefused(std::string_view pattern) {
  if (pattern.size() > kLargestPatternBytes || pattern.find('\0') != std::string_view::npos) {
    return true;
  }
  for (std::size_t i = 0; i + 1 < pattern.size(); ++i) {
    if (pattern[i] == '\\' && kOperators.find(pattern[++i]) != std::string_view::npos) {
      return true;
    }
  }
  return false;
}

struct Head {
  std::string_view bytes;
  bool decides;  ///< Nothing after it can keep a text that begins so from matching.
};

/// The part of an expression before the first operator other than ".".
Head headOf(std::string_view expression) {
  const std::size_t end = std::min(expression.find_first_of("[*\\^$"), expression.size());
  const std::string_view bytes = expression.substr(0, end);
  const std::string_view rest = expression.substr(end);
  if (rest.empty()) {
    return {bytes, true};
  }
  if (rest.front() != '*' || bytes.empty()) {
    return {bytes, false};
  }
  // The byte before a "*" may be missing from the text.
  return {bytes.substr(0, end - 1), bytes.back() == '.' && rest == "*"};
}

}  // namespace

std::optional<KeyPattern> KeyPattern::compile(const std::string& pattern) {
  if (isRefused(pattern)) {
    return std::nullopt;
  }
  std::string expression = pattern;
  if (const std::size_t wildcard = expression.find(kSqlWildcard); wildcard != std::string::npos) {
    expression.replace(wildcard, kSqlWildcard.size(), kRegexpWildcard);
  }

  KeyPattern compiled;
  const Head head = headOf(expression);
  compiled.head_ = head.bytes;
  if (!head.decides) {
    compiled.expression_ = SimpleExpression::compile(expression);
    if (!compiled.expression_) {
      return std::nullopt;
    }
  }
  return compiled;
}

bool KeyPattern::matches(const std::string& key) const {
  if (key.size() < head_.size()) {
    return false;
  }
  // From the back, because keys are alike at their beginnings. The library takes a NUL for the key's end.
  for (std::size_t i = head_.size(); i-- > 0;) {
    if (head_[i] != key[i] && (head_[i] != '.' || key[i] == '\0')) {
      return false;
    }
  }
  return !expression_ || expression_->matches(key);
}

}  // namespace propertyservice
