#include "validators/EnumValidator.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "core/Constants.h"

namespace propertyservice {

namespace {

bool isListed(std::string_view value, std::string_view list) {
  for (std::size_t start = 0; start < list.size();) {
    const std::size_t end = std::min(list.find(',', start), list.size());
    if (list.substr(start, end - start) == value) {
      return !value.empty();
    }
    start = end + 1;
  }
  return false;
}

}  // namespace

bool EnumValidator::validate(Property& property) {
  if (property.member(column::kEnum).isNull()) {
    return true;
  }
  const bool listed = property.member(column::kValue).isConvertibleTo(Json::stringValue) &&
                      isListed(property.text(column::kValue), property.text(column::kEnum));
  property.setStatus(listed ? Status::Ok : Status::ValueError);
  return listed;
}

}  // namespace propertyservice
