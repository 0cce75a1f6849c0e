#include "database/PersistentDatabaseCache.h"

#include <exception>
#include <string_view>
#include <utility>

#include "core/Constants.h"
#include "core/Log.h"
#include "database/KeyPattern.h"

namespace propertyservice {

namespace {

constexpr std::size_t kExpectedDumpSize = 4096;

bool has(const Property& property, std::string_view column) {
  return !property.member(column).isNull();
}

bool wantsAlias(const Property& property) {
  return property.status() == Status::NotFound &&
         (has(property, column::kProvisioning) || has(property, column::kWebui));
}

void copyValue(const Property& from, Property& to) {
  to.set(column::kValue, from.text(column::kValue));
}

}  // namespace

void PersistentDatabaseCache::load(std::vector<Property> rows) {
  properties_.reserve(rows.size());
  byWebui_.reserve(rows.size());
  byProvisioning_.reserve(rows.size());
  for (Property& row : rows) {
    Property& stored = properties_[row.text(column::kKey)];
    stored = std::move(row);
    if (has(stored, column::kWebui)) {
      byWebui_[stored.text(column::kWebui)] = &stored;
    }
    if (has(stored, column::kProvisioning)) {
      byProvisioning_[stored.text(column::kProvisioning)] = &stored;
    }
  }

  keys_.clear();
  for (const auto& [key, property] : properties_) {
    keys_.emplace_back(&key, &property);
  }
  webuiNames_ = namesOf(byWebui_);
  provisioningNames_ = namesOf(byProvisioning_);
}

void PersistentDatabaseCache::get(Property& property) {
  try {
    if (const Property* found = findByKey(property)) {
      property = *found;
    } else {
      property.setStatus(Status::NotFound);
    }
    if (wantsAlias(property)) {
      if (const Property* found = findByAlias(property)) {
        property = *found;
        property.setStatus(Status::Ok);
      }
    }
  } catch (const std::exception& error) {
    logger().error() << error.what();
  }
}

void PersistentDatabaseCache::set(Property& property) {
  try {
    if (Property* found = findByKey(property)) {
      copyValue(property, *found);
    } else {
      property.setStatus(Status::NotFound);
    }
    if (wantsAlias(property)) {
      if (Property* found = findByAlias(property)) {
        copyValue(property, *found);
        property.setStatus(Status::Ok);
      } else {
        logger().error() << "Caught exception ";
      }
    }
  } catch (const std::exception& error) {
    logger().error() << error.what();
  }
}

void PersistentDatabaseCache::reset(Property& property) {
  property.set(column::kValue, property.text(column::kDefaultValues));
  set(property);
}

std::vector<Property> PersistentDatabaseCache::getMultiple(const std::string& keyPattern,
                                                           const std::string& selector) {
  if (keyPattern.find(kSqlWildcard) != std::string::npos) {
    return match(keyPattern, selector);
  }
  Property property;
  property.set(selector.empty() ? column::kKey : selector, keyPattern);
  get(property);
  std::vector<Property> found;
  if (property.status() == Status::Ok) {
    found.push_back(std::move(property));
  }
  return found;
}

ProvisioningDump PersistentDatabaseCache::getProvisioningDump() {
  ProvisioningDump dump;
  dump.reserve(kExpectedDumpSize);
  for (const auto& [name, property] : provisioningNames_) {
    dump.emplace_back(*name, property->text(column::kValue));
  }
  return dump;
}

PersistentDatabaseCache::Names PersistentDatabaseCache::namesOf(const Index& index) {
  Names names;
  names.reserve(index.size());
  for (const auto& [name, property] : index) {
    names.emplace_back(&name, property);
  }
  return names;
}

Property* PersistentDatabaseCache::findByKey(const Property& wanted) {
  const auto entry = properties_.find(wanted.text(column::kKey));
  return entry != properties_.end() ? &entry->second : nullptr;
}

Property* PersistentDatabaseCache::findByAlias(const Property& wanted) {
  const bool provisioned = has(wanted, column::kProvisioning);
  const Index& index = provisioned ? byProvisioning_ : byWebui_;
  const auto entry = index.find(wanted.text(provisioned ? column::kProvisioning : column::kWebui));
  return entry != index.end() ? entry->second : nullptr;
}

std::vector<Property> PersistentDatabaseCache::match(const std::string& keyPattern,
                                                     const std::string& selector) const {
  const Names* const names = selector.empty()                    ? &keys_
                             : selector == column::kWebui        ? &webuiNames_
                             : selector == column::kProvisioning ? &provisioningNames_
                                                                 : nullptr;
  if (names == nullptr) {
    logger().error() << "Wrong colunm ID in selectList (should be webui or provisioning.";
    return {};
  }
  const auto pattern = KeyPattern::compile(keyPattern);
  if (!pattern) {
    return {};
  }
  std::vector<Property> matching;
  for (const auto& [name, property] : *names) {
    if (pattern->matches(*name)) {
      matching.push_back(*property);
    }
  }
  return matching;
}

}  // namespace propertyservice
