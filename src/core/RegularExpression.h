#pragma once

#include <memory>
#include <optional>
#include <regex.h>
#include <string>

namespace propertyservice {

/// A compiled regular expression of the C library. One thread at a time.
class RegularExpression {
 public:
  /// `flags` as `regcomp` takes them. Nothing when the pattern does not compile.
  static std::optional<RegularExpression> compile(const std::string& pattern, int flags) {
    auto compiled = std::make_unique<regex_t>();
    if (regcomp(compiled.get(), pattern.c_str(), flags) != 0) {
      return std::nullopt;
    }
    return RegularExpression(compiled.release());
  }

  /// Whether it matches anywhere in `text`, which ends at its first NUL.
  bool matches(const std::string& text) const {
    return regexec(compiled_.get(), text.c_str(), 0, nullptr, 0) == 0;
  }

 private:
  struct Release {
    void operator()(regex_t* compiled) const {
      regfree(compiled);
      delete compiled;
    }
  };

  explicit RegularExpression(regex_t* compiled) : compiled_(compiled) {}

  std::unique_ptr<regex_t, Release> compiled_;
};

}  // namespace propertyservice
