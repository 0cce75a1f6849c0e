#include "core/MigrationRuleRename.h"

#include <algorithm>

#include "core/Constants.h"
#include "core/Log.h"

namespace propertyservice {

namespace {

/// An iterator to the first of `properties` that has `key`, or their end.
auto find(auto& properties, const Json::Value& key) {
  return std::find_if(properties.begin(), properties.end(),
                      [&](const Property& property) { return property.member(column::kKey) == key; });
}

}  // namespace

MigrationRuleRename::MigrationRuleRename(const std::string& oldKey, const std::string& newKey)
    : oldKey_(oldKey), newKey_(newKey) {}

void MigrationRuleRename::apply(std::vector<Property>& properties) const {
  const auto property = find(properties, oldKey_);
  if (property != properties.end()) {
    property->set(column::kKey, newKey_);
  }
}

bool MigrationRuleRename::check(const std::vector<Property>& properties) const {
  return find(properties, oldKey_) != properties.end() && find(properties, newKey_) == properties.end();
}

void MigrationRuleRename::reportFailure(const std::vector<Property>& properties, int step) const {
  const auto property = find(properties, oldKey_);
  if (property == properties.end()) {
    logger().error() << "Migration of NVM version " << step << " failed to find parameter with key \""
                     << oldKey_.asString() << "\" and rename it to new key \"" << newKey_.asString() << "\"";
  } else {
    logger().error() << "Migration of NVM version " << step << " failed to rename parameter with key \""
                     << oldKey_.asString() << "\" and value \"" << property->text(column::kValue)
                     << "\" to new key \"" << newKey_.asString() << "\"";
  }
}

}  // namespace propertyservice
