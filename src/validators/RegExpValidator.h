#pragma once

#include "validators/Validator.h"

namespace propertyservice {

/// Refuses a value in which the extended regular expression "regexp" matches nowhere (`RegExpError`).
///
/// Takes a time that is linear in the value under every `ExtendedExpression`; the C library decides under the
/// few others. Keeps up to 256 compiled expressions per thread.
class RegExpValidator final : public Validator {
 public:
  bool validate(Property& property) override;
};

}  // namespace propertyservice
