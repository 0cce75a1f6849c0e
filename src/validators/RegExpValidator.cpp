#include "validators/RegExpValidator.h"

#include <optional>
#include <regex.h>
#include <string>
#include <unordered_map>

#include "core/Constants.h"
#include "core/JsonText.h"
#include "core/Log.h"
#include "expressions/ExtendedExpression.h"

namespace propertyservice {

namespace {

constexpr std::size_t kMostKeptExpressions = 256;

/// Nothing when the expression does not compile.
std::optional<bool> libraryMatches(const std::string& pattern, const std::string& text) {
  regex_t compiled;
  if (regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
    return std::nullopt;
  }
  const bool matches = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
  regfree(&compiled);
  return matches;
}

/// Nothing when the expression does not compile. Keeps the expressions that a thread compiles, since one
/// value under a pattern is seldom the last.
std::optional<bool> matches(const std::string& pattern, const std::string& text) {
  thread_local std::unordered_map<std::string, std::optional<ExtendedExpression>> kept;

  auto found = kept.find(pattern);
  if (found == kept.end()) {
    if (kept.size() == kMostKeptExpressions) {
      kept.clear();
    }
    found = kept.emplace(pattern, ExtendedExpression::compile(pattern)).first;
  }
  return found->second ? found->second->matches(text) : libraryMatches(pattern, text);
}

bool refuse(Property& property) {
  property.setStatus(Status::RegExpError);
  return false;
}

}  // namespace

bool RegExpValidator::validate(Property& property) {
  property.setStatus(Status::Ok);
  if (property.member(column::kRegexp).isNull()) {
    return true;
  }
  const std::string pattern = property.text(column::kRegexp);
  const Json::Value& value = property.member(column::kValue);
  const bool isText = value.isConvertibleTo(Json::stringValue);
  const std::string text = isText ? value.asString() : json::write(value);

  const std::optional<bool> matched = matches(pattern, text);
  if (!matched) {
    logger().info() << "Regexp compilation failed";
    return refuse(property);
  }
  if (isText && *matched) {
    return true;
  }
  logger().info() << "Regexp: " << pattern
                  << " comparison failed for value:" << [&] { return excerpt(text); };
  return refuse(property);
}

}  // namespace propertyservice
