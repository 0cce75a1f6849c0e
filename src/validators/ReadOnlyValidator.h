#pragma once

#include "validators/Validator.h"

namespace propertyservice {

/// Refuses a property whose flags have bit 0 set (`ReadOnly`).
class ReadOnlyValidator final : public Validator {
 public:
  bool validate(Property& property) override;
};

}  // namespace propertyservice
