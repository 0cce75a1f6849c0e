#pragma once

#include "validators/Validator.h"

namespace propertyservice {

/// Refuses a value in which the extended regular expression "regexp" matches nowhere (`RegExpError`).
///
/// Compiled expressions are kept per thread, 256 at most.
class RegExpValidator final : public Validator {
 public:
  bool validate(Property& property) override;
};

}  // namespace propertyservice
