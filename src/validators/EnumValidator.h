#pragma once

#include "validators/Validator.h"

namespace propertyservice {

/// Refuses a value that is none of the comma-separated texts in "enum" (`ValueError`).
class EnumValidator final : public Validator {
 public:
  bool validate(Property& property) override;
};

}  // namespace propertyservice
