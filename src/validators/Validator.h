#pragma once

#include "core/Property.h"

namespace propertyservice {

/// One rule that a write to a persistent property has to pass.
class Validator {
 public:
  virtual ~Validator() = default;

  /// Judges the new "value" by the rules that the property carries, and leaves the verdict in its status.
  /// Throws nothing. Safe from any thread.
  virtual bool validate(Property& property) = 0;
};

}  // namespace propertyservice
