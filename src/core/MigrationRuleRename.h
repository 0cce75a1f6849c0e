#pragma once

#include <string>

#include <json/value.h>

#include "core/MigrationRule.h"

namespace propertyservice {

/// Gives the property with key `oldKey` the key `newKey`, which none of the others may have.
class MigrationRuleRename final : public MigrationRule {
 public:
  MigrationRuleRename(const std::string& oldKey, const std::string& newKey);

  void apply(std::vector<Property>& properties) const override;
  bool check(const std::vector<Property>& properties) const override;
  void reportFailure(const std::vector<Property>& properties, int step) const override;

 private:
  const Json::Value oldKey_;
  const Json::Value newKey_;
};

}  // namespace propertyservice
