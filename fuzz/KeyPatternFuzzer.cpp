#include <algorithm>
#include <cstring>
#include <regex.h>

#include "database/KeyPattern.h"
#include "fuzz/Fuzzing.h"

// A key pattern in the first line, keys in the lines after it. A pattern that passes the guard must answer as
// the C library does for the same expression. Prints at the end how many keys were compared.

namespace propertyservice::fuzz {
namespace {

/// The C library's own matcher keeps what it learns from each key: more would exhaust the memory.
constexpr std::size_t kMostKeys = 32;
constexpr std::size_t kLargestKeyBytes = 128;

struct Compared {
  ~Compared() { std::printf("%zu keys compared\n", keys); }
  std::size_t keys = 0;
};
Compared compared;

/// Groups, intervals, back-references and the GNU operators; see `KeyPattern`.
bool mustBeRefused(const std::string& pattern) {
  for (std::size_t i = 0; i + 1 < pattern.size(); ++i) {
    if (pattern[i] == '\\') {
      ++i;
      if (pattern[i] == '\0' || std::strchr("(){}|+?<>`'wWsSbB123456789", pattern[i]) != nullptr) {
        return true;
      }
    }
  }
  return pattern.size() > 256 || pattern.find('\0') != std::string::npos;
}

/// The expression that a pattern stands for, by the C library alone.
class Expression {
 public:
  explicit Expression(std::string pattern) {
    if (const std::size_t wildcard = pattern.find('%'); wildcard != std::string::npos) {
      pattern.replace(wildcard, 1, ".*");
    }
    compiles_ = regcomp(&expression_, ("^" + pattern).c_str(), 0) == 0;
  }
  Expression(const Expression&) = delete;
  Expression& operator=(const Expression&) = delete;
  ~Expression() {
    if (compiles_) {
      regfree(&expression_);
    }
  }

  bool compiles() const { return compiles_; }
  bool matches(const std::string& key) const {
    return regexec(&expression_, key.c_str(), 0, nullptr, 0) == 0;
  }

 private:
  regex_t expression_;
  bool compiles_;
};

void compare(const std::string& pattern, const std::vector<std::string>& keys) {
  const auto subject = KeyPattern::compile(pattern);
  if (mustBeRefused(pattern)) {
    require(!subject, "a dangerous pattern is refused");
    return;
  }
  const Expression library(pattern);
  require(subject.has_value() == library.compiles(), "what compiles is what the library compiles");
  if (subject) {
    for (std::size_t i = 0; i < std::min(keys.size(), kMostKeys); ++i) {
      const std::string key = keys[i].substr(0, kLargestKeyBytes);
      ++compared.keys;
      require(subject->matches(key) == library.matches(key), "a key matches when the library says so");
    }
  }
}

}  // namespace
}  // namespace propertyservice::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace propertyservice::fuzz;

  const std::vector<std::string> lines = split(toText(data, size), "\n");
  compare(lines.front(), {lines.begin() + 1, lines.end()});
  return 0;
}
