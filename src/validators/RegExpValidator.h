#pragma once

#include "validators/Validator.h"

namespace propertyservice {

/// Refuses a value in which the extended regular expression "regexp" matches nowhere (`RegExpError`).
///
/// The compiled expression of a value that matches is kept for the next value under the same pattern, per
/// thread, 256 at most; a mismatch releases it. All are released before they have read more than 1.5 KiB of
/// text together, because the C library remembers each step of a match.
class RegExpValidator final : public Validator {
 public:
  bool validate(Property& property) override;
};

}  // namespace propertyservice
