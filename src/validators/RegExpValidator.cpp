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

bool refuse(Property& property) {
  property.setStatus(Status::RegExpError);
  return false;
}

}  // namespace

bool RegExpValidator::validate(Property& property) {
  // By pattern: to compile one takes far longer than to match it. Per thread: one expression serves one
  // thread at a time.
  thread_local std::unordered_map<std::string, RegularExpression> kept;

  property.setStatus(Status::Ok);
  if (property.member(column::kRegexp).isNull()) {
    return true;
  }
  const std::string pattern = property.text(column::kRegexp);
  auto expression = kept.find(pattern);
  if (expression == kept.end()) {
    auto compiled = RegularExpression::compile(pattern, REG_EXTENDED);
    if (!compiled) {
      logger().info() << "Regexp compilation failed";
      return refuse(property);
    }
    expression = kept.emplace(pattern, std::move(*compiled)).first;
  }

  const Json::Value& value = property.member(column::kValue);
  const bool isText = value.isConvertibleTo(Json::stringValue);
  const bool matches = isText && expression->second.matches(value.asString());
  if (!matches || kept.size() > kMostKeptExpressions) {
    kept.erase(expression);
  }
  if (matches) {
    return true;
  }
  logger().info() << "Regexp: " << pattern << " comparison failed for value:" <<
      [&] { return excerpt(isText ? value.asString() : json::write(value)); };
  return refuse(property);
}

}  // namespace propertyservice
