#pragma once

#include "validators/Validator.h"

namespace propertyservice {

/// Refuses a value that is not a number from "range_min" to "range_max", both included (`ValueOutOfBounds`).
class MinMaxValidator final : public Validator {
 public:
  bool validate(Property& property) override;
};

}  // namespace propertyservice
