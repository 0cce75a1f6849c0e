#include "validators/ReadOnlyValidator.h"

#include "core/Constants.h"
#include "wire/Flags.h"

namespace propertyservice {

namespace {}  // namespace

bool ReadOnlyValidator::validate(Property& property) {
  const Json::Value& flags = property.member(column::kFlags);
  if (flags.isNull()) {
    return true;
  }
  const bool readOnly = flags.isInt64() && (flags.asInt64() & flag::kReadOnly) != 0;
  property.setStatus(readOnly ? Status::ReadOnly : Status::Ok);
  return !readOnly;
}

}  // namespace propertyservice
