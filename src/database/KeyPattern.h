#pragma once

#include <memory>
#include <optional>
#include <regex.h>
#include <string>
#include <string_view>

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

  struct Release {
    void operator()(regex_t* expression) const;
  };

  std::string literalPrefix_;  ///< What every match begins with; compared first.
  std::unique_ptr<regex_t, Release> expression_;
};

}  // namespace propertyservice
