#include "validators/RegExpValidator.h"

#include <string>
#include <unordered_map>

#include "core/Constants.h"
#include "core/JsonText.h"
#include "core/Log.h"
#include "core/RegularExpression.h"

namespace propertyservice {

namespace {

constexpr std::size_t kMostKeptExpressions = 256;

/// A compiled expression takes up to 4 KiB more with each new byte that it reads.
constexpr std::size_t kMostBytesRead = 1536;

/// The expressions of one thread, since one serves one thread at a time.
struct KeptExpressions {
  std::unordered_map<std::string, RegularExpression> byPattern;
  std::size_t bytesRead = 0;  ///< By all of them.

  /// Makes room for what reading a text of `size` may take.
  void prepareToRead(std::size_t size) {
    if (bytesRead + size > kMostBytesRead) {
      byPattern.clear();
      bytesRead = 0;
    }
    bytesRead += size;
  }
};

bool refuse(Property& property) {
  property.setStatus(Status::RegExpError);
  return false;
}

}  // namespace

bool RegExpValidator::validate(Property& property) {
  thread_local KeptExpressions kept;

  property.setStatus(Status::Ok);
  if (property.member(column::kRegexp).isNull()) {
    return true;
  }
  const std::string pattern = property.text(column::kRegexp);
  const Json::Value& value = property.member(column::kValue);
  const bool isText = value.isConvertibleTo(Json::stringValue);
  const std::string text = isText ? value.asString() : json::write(value);

  kept.prepareToRead(text.size());
  auto expression = kept.byPattern.find(pattern);
  if (expression == kept.byPattern.end()) {
    auto compiled = RegularExpression::compile(pattern, REG_EXTENDED);
    if (!compiled) {
      logger().info() << "Regexp compilation failed";
      return refuse(property);
    }
    expression = kept.byPattern.emplace(pattern, std::move(*compiled)).first;
  }

  const bool matches = isText && expression->second.matches(text);
  if (!matches || kept.byPattern.size() > kMostKeptExpressions) {
    kept.byPattern.erase(expression);
  }
  if (matches) {
    return true;
  }
  logger().info() << "Regexp: " << pattern
                  << " comparison failed for value:" << [&] { return excerpt(text); };
  return refuse(property);
}

}  // namespace propertyservice
