#include "validators/ReadOnlyValidator.h"

#include "core/Constants.h"

namespace propertyservice {

namespace {

constexpr Json::Int64 kReadOnlyFlag = 1;

}  // namespace

bool ReadOnlyValidator::validate(Property& property) {
  const Json::Value& flags = property.member(column::kFlags);
  if (flags.isNull()) {
    return true;
  }
  const bool readOnly = flags.isInt64() && (flags.asInt64() & kReadOnlyFlag) != 0;
  property.setStatus(readOnly ? Status::ReadOnly : Status::Ok);
  return !readOnly;
}

}  // namespace propertyservice
