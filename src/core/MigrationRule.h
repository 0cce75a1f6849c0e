#pragma once

#include <vector>

#include "core/Property.h"

namespace propertyservice {

/// One change to the properties of a backup on their way to a newer database version. Held by
/// `std::shared_ptr` to the final class, which alone can destroy it.
class MigrationRule {
 public:
  /// REQUIRES: `check` has returned true for these properties, with the other rules of its step perhaps
  /// applied since.
  virtual void apply(std::vector<Property>& properties) const = 0;

  /// Whether the rule can be carried out.
  virtual bool check(const std::vector<Property>& properties) const = 0;

  /// Logs as an error why this rule of migration `step` was not carried out.
  virtual void reportFailure(const std::vector<Property>& properties, int step) const = 0;

 protected:
  ~MigrationRule() = default;
};

}  // namespace propertyservice
