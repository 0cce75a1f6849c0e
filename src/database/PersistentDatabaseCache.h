#pragma once

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/Property.h"
#include "database/ProvisioningDump.h"

namespace propertyservice {

/// Every persistent property in memory, found by its key, its web name or its provisioning name.
///
/// Filled by `load`; afterwards no property is added or removed, only values change. Without a lock: one
/// thread at a time.
class PersistentDatabaseCache {
 public:
  PersistentDatabaseCache() = default;
  PersistentDatabaseCache(const PersistentDatabaseCache&) = delete;
  PersistentDatabaseCache& operator=(const PersistentDatabaseCache&) = delete;
  virtual ~PersistentDatabaseCache() = default;

  virtual void load(std::vector<Property> rows);

  /// Fills the property from the one with its "key"; where there is none from the one with its "provisioning"
  /// name or, when it has none, its "webui" name. Sets `NotFound` when that fails too.
  virtual void get(Property& property);

  /// Writes the text of "value" to the property found as `get` finds it; nothing else of it changes. Sets
  /// `NotFound` when there is none, else leaves the status as it is (`Ok` when found by an alias).
  virtual void set(Property& property);

  /// Gives the property the text of its "defaultvalues" as "value" and writes it with `set`.
  virtual void reset(Property& property);

  /// The properties whose `selector` column ("key" when empty) is `keyPattern`; with a "%" in it, those that
  /// it matches as a `KeyPattern`: by key when `selector` is empty, else by "webui" or "provisioning" name.
  /// In no particular order.
  virtual std::vector<Property> getMultiple(const std::string& keyPattern, const std::string& selector);

  virtual ProvisioningDump getProvisioningDump();

 private:
  using Index = std::unordered_map<std::string, Property*>;

  /// The entries of a hash map in its own order, for walks through all of them: on its linked list the
  /// processor would wait for memory at every step.
  using Names = std::vector<std::pair<const std::string*, const Property*>>;

  static Names namesOf(const Index& index);

  Property* findByKey(const Property& wanted);
  Property* findByAlias(const Property& wanted);
  std::vector<Property> match(const std::string& keyPattern, const std::string& selector) const;

  std::unordered_map<std::string, Property> properties_;  // by key
  Index byWebui_;                                         // into properties_, like all below
  Index byProvisioning_;
  Names keys_;
  Names webuiNames_;
  Names provisioningNames_;
};

}  // namespace propertyservice
