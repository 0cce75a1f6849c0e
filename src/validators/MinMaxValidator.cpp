#include "validators/MinMaxValidator.h"

#include <exception>

#include "core/Constants.h"
#include "core/Integer.h"
#include "core/Log.h"

namespace propertyservice {

bool MinMaxValidator::validate(Property& property) {
  const Json::Value& least = property.member(column::kRangeMin);
  const Json::Value& greatest = property.member(column::kRangeMax);
  bool inside = least.isNull() && greatest.isNull();
  if (!inside) {
    try {
      const Json::Value number = toInteger(property.text(column::kValue));
      inside = (least.isNull() || number >= least) && (greatest.isNull() || number <= greatest);
    } catch (const std::exception& error) {
      logger().info() << "Cannot validate value with range: " << error.what();
    }
  }
  property.setStatus(inside ? Status::Ok : Status::ValueOutOfBounds);
  return inside;
}

}  // namespace propertyservice
